#include "MorvaneCore/SnapshotStore/ICloudBackup.h"

#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserDefaults.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"
#include "Support/Mapped.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using Entry = CalendarArchive::Entry;
using SyncResult = ICloudBackup::SyncResult;

Date at(const char* stamp) { return *dates::parseStamp(stamp); }

// The names in a folder, hidden ones included, sorted.
std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& child : fs::directory_iterator(folder))
        names.push_back(child.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> stampsOf(const std::vector<Entry>& entries) { return testing::mapped(entries, &Entry::stamp); }

// Two computers of one user, each with a store of its own, sharing one folder.
class ICloudBackupTest : public ::testing::Test {
protected:
    // Lists a restore point of `stamp` in `store`, with a file whose bytes name it.
    static Entry addRestorePoint(CalendarArchive& store, const char* stamp, bool eventKit = false) {
        Entry entry{stamp, at(stamp), std::string("fingerprint ") + stamp,
                    5,     100,       eventKit ? std::optional<std::string>("eventkit") : std::nullopt};
        files::createDirectories(store.directory());
        files::write(store.fileURL(entry), std::string("bytes of ") + stamp);
        auto listed = CalendarArchive::readIndex(store.directory() / "index.json");
        listed.push_back(entry);
        CalendarArchive::writeIndex(listed, store.directory() / "index.json");
        return entry;
    }

    testing::TemporaryUser user;
    const fs::path shared = user.root().path() / "Nextcloud" / "Morvane";
    const Date now = at("2025-08-15-120000");
    testing::FakeMachine laptop{"LAPTOP-ID", "Jane's Laptop/2: Work."};
    testing::FakeMachine desktop{"DESKTOP-ID", "Jane's Laptop/2: Work."};
    CalendarArchive laptopStore{user.root().path() / "laptop"};
    CalendarArchive desktopStore{user.root().path() / "desktop"};
    ICloudBackup copies{shared};
};

TEST_F(ICloudBackupTest, EachComputerWritesOnlyItsOwnFolderAndReadsEveryOnes) {
    addRestorePoint(laptopStore, "2025-08-10-090000");
    addRestorePoint(laptopStore, "2025-08-12-090000", /*eventKit=*/true);
    addRestorePoint(desktopStore, "2025-08-11-090000");
    const auto laptopFolder = shared / "Jane's Laptop-2- Work";
    {
        ScopedReplacement<Machine> installed(laptop);
        EXPECT_EQ(copies.sync(laptopStore, now), (SyncResult{2, 0, 2}));
        EXPECT_EQ(namesIn(laptopFolder),
                  (std::vector<std::string>{"2025-08-10-090000.calsnap", "2025-08-12-090000.calevents", "index.json",
                                            "mac.json"}));
        EXPECT_EQ(nlohmann::json::parse(files::read(laptopFolder / "mac.json")),
                  (nlohmann::json{{"id", "LAPTOP-ID"}, {"name", "Jane's Laptop-2- Work"}}));
        // Copied files are recognised by name alone.
        EXPECT_EQ(copies.sync(laptopStore, now), (SyncResult{0, 0, 2}));
    }
    {
        // Another computer of the same name gets the next free folder name, not the same folder.
        ScopedReplacement<Machine> installed(desktop);
        EXPECT_EQ(copies.sync(desktopStore, now), (SyncResult{1, 0, 1}));
        EXPECT_EQ(nlohmann::json::parse(files::read(shared / "Jane's Laptop-2- Work 2" / "mac.json"))["name"],
                  "Jane's Laptop-2- Work");

        const auto seen = copies.snapshots();
        ASSERT_EQ(seen.size(), 3u);
        EXPECT_EQ(seen[0].file, laptopFolder / "2025-08-12-090000.calevents");
        EXPECT_EQ(seen[1].file, shared / "Jane's Laptop-2- Work 2" / "2025-08-11-090000.calsnap");
        EXPECT_EQ(seen[2].entry.stamp, "2025-08-10-090000");
        EXPECT_EQ(std::vector<bool>({seen[0].isThisMac, seen[1].isThisMac, seen[2].isThisMac}),
                  std::vector<bool>({false, true, false}));
        EXPECT_EQ(copies.ownUsage().bytes, 100);
    }
    {
        // Renamed, the laptop shows under its new name and keeps its folder.
        laptop.rename("Studio");
        ScopedReplacement<Machine> installed(laptop);
        copies.sync(laptopStore, now);
        EXPECT_EQ(copies.thisMacsFolder(), laptopFolder);
        EXPECT_EQ(nlohmann::json::parse(files::read(laptopFolder / "mac.json"))["name"], "Studio");

        copies.removeThisMacsCopies();
        EXPECT_FALSE(fs::exists(laptopFolder));
        EXPECT_EQ(copies.macFolders().size(), 1u);
    }
}

TEST_F(ICloudBackupTest, TheCopiesAreThinnedLikeTheStoreAndTheirIndexHeals) {
    ScopedReplacement<Machine> installed(laptop);
    addRestorePoint(laptopStore, "2025-08-10-090000");
    addRestorePoint(laptopStore, "2022-01-10-090000"); // older than two years: never copied
    copies.sync(laptopStore, now);
    const auto folder = *copies.thisMacsFolder();

    // Restore points that only the copies' index lists: one whose file is there, one whose file
    // is gone; and a leftover file of a stamp nobody lists.
    auto listed = CalendarArchive::readIndex(folder / "index.json");
    listed.push_back({"2025-08-01-090000", at("2025-08-01-090000"), "a", 1, 1, std::nullopt});
    listed.push_back({"2025-08-02-090000", at("2025-08-02-090000"), "b", 1, 1, std::nullopt});
    CalendarArchive::writeIndex(listed, folder / "index.json");
    files::write(folder / "2025-08-01-090000.calsnap", "kept");
    files::write(folder / "2023-03-01-090000.calsnap", "leftover");

    EXPECT_EQ(copies.sync(laptopStore, now), (SyncResult{0, 1, 2}));
    EXPECT_EQ(stampsOf(CalendarArchive::readIndex(folder / "index.json")),
              (std::vector<std::string>{"2025-08-01-090000", "2025-08-10-090000"}));
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"2025-08-01-090000.calsnap", "2025-08-10-090000.calsnap",
                                                         "index.json", "mac.json"}));

    // Two months on, the point only the copies had goes by the weekly rule: a newer one of its
    // week stands in the store.
    addRestorePoint(laptopStore, "2025-08-02-090000");
    EXPECT_EQ(copies.sync(laptopStore, at("2025-10-15-120000")), (SyncResult{1, 1, 2}));
    EXPECT_EQ(stampsOf(CalendarArchive::readIndex(folder / "index.json")),
              (std::vector<std::string>{"2025-08-02-090000", "2025-08-10-090000"}));
}

TEST_F(ICloudBackupTest, AnInterruptedSyncLeavesTheIndexAsItWasAndOnlyHiddenPartialFiles) {
    ScopedReplacement<Machine> installed(laptop);
    addRestorePoint(laptopStore, "2025-08-10-090000");
    copies.sync(laptopStore, now);
    const auto folder = *copies.thisMacsFolder();
    addRestorePoint(laptopStore, "2025-08-11-090000");
    addRestorePoint(laptopStore, "2025-08-12-090000");
    files::write(folder / "2023-03-01-090000.calsnap", "leftover");

    // Every run starts from this state, so that each changing call in turn is the one that fails.
    const auto start = user.root().path() / "start";
    fs::copy(folder, start, fs::copy_options::recursive);
    const auto restart = [&] {
        fs::remove_all(folder);
        fs::copy(start, folder, fs::copy_options::recursive);
    };
    const auto before = files::read(folder / "index.json");
    bool leftPartial = false;
    for (int failing = 1;; ++failing) {
        ASSERT_LT(failing, 30);
        restart();
        bool threw = false;
        {
            testing::Installed<testing::FailingFileSystem> failingFiles(failing);
            threw = testing::caught<PlatformError>([&] { copies.sync(laptopStore, now); }).has_value();
            if (!failingFiles->failed()) break;
        }
        if (!threw) continue; // the failure was one the sync may drop: a leftover that stays
        EXPECT_EQ(files::read(folder / "index.json"), before) << failing;
        // Readers see whole files under their final names only.
        for (const auto& snapshot : copies.snapshots())
            EXPECT_TRUE(fs::exists(snapshot.file)) << failing;
        for (const auto& name : namesIn(folder))
            leftPartial = leftPartial || (name.starts_with('.') && name.ends_with(".partial"));
    }
    EXPECT_TRUE(leftPartial);

    // What an interrupted copy left is replaced by the next one.
    restart();
    files::write(folder / ".2025-08-11-090000.calsnap.partial", "half");
    EXPECT_EQ(copies.sync(laptopStore, now), (SyncResult{2, 1, 3}));
    EXPECT_EQ(files::read(folder / "2025-08-11-090000.calsnap"), "bytes of 2025-08-11-090000");
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"2025-08-10-090000.calsnap", "2025-08-11-090000.calsnap",
                                                         "2025-08-12-090000.calsnap", "index.json", "mac.json"}));
}

TEST_F(ICloudBackupTest, DamagedOrMissingPiecesCountAsAbsent) {
    {
        // A computer without an identifier goes by its name, then by "Mac".
        testing::FakeMachine unnamed{std::nullopt, std::nullopt};
        ScopedReplacement<Machine> installed(unnamed);
        EXPECT_EQ(ICloudBackup::machineID(), "Mac");
        unnamed.rename(" . ");
        EXPECT_EQ(ICloudBackup::machineID(), " . ");
        addRestorePoint(laptopStore, "2025-08-10-090000");
        copies.sync(laptopStore, now);
        EXPECT_TRUE(fs::exists(shared / "Mac" / "mac.json"));
    }
    EXPECT_EQ(Machine::identifierIn(user.root().write("machine-id", "  3d1219c7\n\n")), "3d1219c7");
    EXPECT_EQ(Machine::identifierIn(user.root().write("empty-machine-id", "\n")), std::nullopt);
    EXPECT_EQ(Machine::identifierIn(user.root().path() / "no-machine-id"), std::nullopt);

    ScopedReplacement<Machine> installed(laptop);
    copies.sync(laptopStore, now);
    const auto folder = *copies.thisMacsFolder();
    // A damaged index hides that computer's copies until its next sync writes a new one.
    files::write(folder / "index.json", "[{\"stamp\": 1}]");
    const auto seen = copies.snapshots();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].macName, "Mac");
    EXPECT_EQ(copies.sync(laptopStore, now), (SyncResult{0, 0, 1}));
    // A damaged mac.json leaves a folder that no longer counts: the computer starts another.
    files::write(folder / "mac.json", "{\"id\": \"LAPTOP-ID\"}");
    copies.sync(laptopStore, now);
    EXPECT_EQ(copies.thisMacsFolder(), fs::path(folder.string() + " 2"));
}

TEST_F(ICloudBackupTest, TheSharedObjectFollowsTheNamedFolderAndRecordsEachOutcome) {
    ScopedReplacement<Machine> installed(laptop);
    addRestorePoint(laptopStore, "2025-08-10-090000");
    ICloudBackup named;
    auto& defaults = UserDefaults::current();
    EXPECT_EQ(named.syncIfEnabled(laptopStore, now), std::nullopt);
    EXPECT_EQ(named.lastError(), std::nullopt);

    named.setEnabled(true);
    const auto notNamed = named.syncIfEnabled(laptopStore, now);
    ASSERT_TRUE(notNamed && !notNamed->succeeded());
    EXPECT_EQ(notNamed->error, named.unavailableReason());
    EXPECT_NE(notNamed->error.find("morvane copies enable --folder PATH"), std::string::npos);

    // A named folder that vanished isn't made again: the copies would never leave this disk.
    ICloudBackup::setNamedFolder(shared);
    EXPECT_FALSE(named.isAvailable());
    EXPECT_FALSE(named.syncIfEnabled(laptopStore, now)->succeeded());
    EXPECT_EQ(named.lastError(), "The shared folder for copies isn't available: " + shared.string() +
                                     " isn't there. Reconnect it, or name another with: morvane copies enable "
                                     "--folder PATH");
    EXPECT_FALSE(fs::exists(shared));

    files::createDirectories(shared);
    EXPECT_TRUE(named.syncIfEnabled(laptopStore, now)->succeeded());
    EXPECT_EQ(named.lastError(), std::nullopt);
    EXPECT_EQ(named.lastSynced(), now);
    defaults.setString(std::string(ICloudBackup::lastSyncedKey), "yesterday");
    EXPECT_EQ(named.lastSynced(), std::nullopt);

    // Copies made by hand into the cloud drive's visible folder move under the root.
    const auto visible = ICloudBackup::visibleFolder() / "Old Laptop";
    files::createDirectories(visible);
    files::write(visible / "mac.json", R"({"id":"OLD-ID","name":"Old Laptop"})");
    named.sync(laptopStore, now);
    EXPECT_FALSE(fs::exists(ICloudBackup::visibleFolder()));
    EXPECT_TRUE(fs::exists(shared / "Old Laptop" / "mac.json"));
}

} // namespace
} // namespace morvane
