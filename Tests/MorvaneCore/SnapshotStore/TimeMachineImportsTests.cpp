#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"

#include "MorvaneCore/Backups/BackupCache.h"
#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvanePlatform/Files.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"
#include "Support/FolderBackups.h"
#include "Support/Mapped.h"

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using Kind = BackupSource::Kind;
using Case = CalendarArchive::SnapshotResult::Case;

class TimeMachineImportsTest : public ::testing::Test {
protected:
    void TearDown() override { BackupLocator::removeAllStagedCopies(); }

    // A folder-based backup: {root}/Backups.backupdb/Mac/{stamp}/Macintosh HD/Users/jane/...
    std::string backup(const std::string& stamp, int events = 1) {
        return testing::writeFolderBackup(user.root().path() / "Backups.backupdb/Mac",
                                          fs::path("Macintosh HD/Users/jane") / BackupLocator::relativeDBPath,
                                          {stamp, events})
            .string();
    }

    void listBackups(const std::vector<std::string>& stamps, const std::vector<std::string>& local = {}) {
        std::string backups;
        for (const auto& stamp : stamps)
            backups += "/Volumes/B/Backups.backupdb/Mac/" + stamp + "\n";
        std::string snapshots = "Snapshot dates for disk /:\n";
        for (const auto& stamp : local)
            snapshots += stamp + "\n";
        tools->answer("/usr/bin/tmutil listbackups", {0, backups});
        tools->answer("/usr/bin/tmutil listlocalsnapshotdates /", {0, snapshots});
    }

    std::vector<std::string> pendingPaths() {
        return testing::mapped(TimeMachineImports::pending(*archive).sources, &BackupSource::id);
    }

    BackupSource source(const std::string& path, const std::string& stamp) {
        return {Kind::timeMachine(path), dates::parseStamp(stamp)};
    }

    // A snapshot-based backup of 2024-03-01-101500 holding `events` events: mounting makes its
    // volume appear at the mount point (after `whileMounting` has run), unmounting takes it away.
    std::string snapshotBackup(int events) {
        const std::string uuid = "4C3A2B1D-9E8F-4A7B-B6C5-D4E3F2A1B0C9";
        const auto volume = user.root().makeFolder("Backup Disk");
        const auto content = fs::path(backup("content", events)) / "Macintosh HD";
        tools->answer("/usr/sbin/diskutil info -plist " + uuid,
                      {0, "<plist><dict><key>MountPoint</key><string>" + volume.string() + "</string></dict></plist>"});
        tools->simulate("/sbin/mount_apfs ", [this, content](const std::vector<std::string>& arguments) {
            if (whileMounting) whileMounting();
            fs::copy(content, arguments.back(), fs::copy_options::recursive);
            return LaunchResult{0, ""};
        });
        tools->simulate("/sbin/umount ", [](const std::vector<std::string>& arguments) {
            for (const auto& entry : fs::directory_iterator(arguments.back()))
                fs::remove_all(entry.path());
            return LaunchResult{0, ""};
        });
        return "/Volumes/.timemachine/" + uuid + "/2024-03-01-101500.backup/2024-03-01-101500.backup";
    }

    std::function<void()> whileMounting;
    testing::TemporaryUser user;
    testing::Installed<testing::RecordingToolLauncher> tools;
    std::shared_ptr<CalendarArchive> archive = TimeMachineImports::forAppStoreEdition();
};

TEST_F(TimeMachineImportsTest, OnlyTheLatestUncheckedBackupOfEachLocalDayIsPending) {
    listBackups({"2024-03-01-090000", "2024-03-01-170000", "2024-03-01-130000", "2024-03-01-235959",
                 "2024-03-02-000000", "Latest"},
                {"2024-02-28-120000", "2024-03-02-000000"});
    // The local snapshot of the same moment as a disk backup is listed first and stays.
    EXPECT_EQ(pendingPaths(), (std::vector<std::string>{"snap:com.apple.TimeMachine.2024-02-28-120000.local",
                                                        "tm:/Volumes/B/Backups.backupdb/Mac/2024-03-01-235959",
                                                        "snap:com.apple.TimeMachine.2024-03-02-000000.local"}));

    // A checked stamp is no longer pending, but a newer backup of its day is; a damaged list of
    // checked stamps counts as empty.
    listBackups({"2024-03-01-130000"});
    fs::create_directories(archive->directory());
    for (const char* stored : {"[]", "not json", "[1, 2]", "{\"a\": 1}"}) {
        files::write(archive->directory() / "checked.json", stored);
        EXPECT_EQ(pendingPaths().size(), 1u) << stored;
    }
    TimeMachineImports::markChecked("2024-03-01-130000", *archive);
    EXPECT_TRUE(pendingPaths().empty());
    listBackups({"2024-03-01-130000", "2024-03-01-170000"});
    EXPECT_EQ(pendingPaths(), std::vector<std::string>{"tm:/Volumes/B/Backups.backupdb/Mac/2024-03-01-170000"});

    // Marks stay sorted and unique.
    for (const char* stamp : {"2024-03-02-101500", "2024-01-01-000000", "2024-03-02-101500", "2024-02-01-000000"})
        TimeMachineImports::markChecked(stamp, *archive);
    EXPECT_EQ(files::read(archive->directory() / "checked.json"),
              R"(["2024-01-01-000000","2024-02-01-000000","2024-03-01-130000","2024-03-02-101500"])");
}

TEST_F(TimeMachineImportsTest, AnUndatedBackupIsRefusedAndMarksNothing) {
    const auto undated = backup("Latest");
    EXPECT_EQ(testing::errorText<RestoreError>([&] {
                  TimeMachineImports::importBackup({Kind::timeMachine(undated), std::nullopt}, *archive);
              }),
              "This backup has no date.");
    EXPECT_TRUE(TimeMachineImports::checkedStamps(*archive).empty());
    EXPECT_TRUE(fs::is_empty(user.temporary()));
}

TEST_F(TimeMachineImportsTest, ABackupIsReadFromTheDiskOnceAndThenFromTheCache) {
    const auto path = backup("2024-03-01-101500", 2);
    const auto tm = source(path, "2024-03-01-101500");
    EXPECT_FALSE(BackupCache::shared().isCached(tm));

    auto first = BackupCatalog::open(tm);
    EXPECT_EQ(first.location, fs::path(path) / "Macintosh HD/Users/jane" / std::string(BackupLocator::relativeDBPath));
    first.close();
    first.close();
    EXPECT_TRUE(BackupCache::shared().isCached(tm));

    // The cache file depends on the id alone, so another date hits it too.
    fs::remove_all(fs::path(path));
    auto second = BackupCatalog::open({tm.kind, std::nullopt});
    EXPECT_TRUE(second.location.ends_with(" (cached)")) << second.location;
    EXPECT_EQ(second.mount, nullptr);
    second.close();
    EXPECT_TRUE(fs::is_empty(user.temporary()));

    // A truncated cache file is removed, and opening goes back to the (now missing) backup.
    files::write(BackupCache::shared().url(tm), "trunc");
    EXPECT_THROW(BackupCatalog::open(tm), Error);
    EXPECT_FALSE(fs::exists(BackupCache::shared().url(tm)));
}

TEST_F(TimeMachineImportsTest, AFailedWriteLeavesTheStoreAsBeforeOrWithTheWholeNewEntry) {
    const auto earlier = source(backup("2024-03-01-101500", 1), "2024-03-01-101500");
    const auto later = source(backup("2024-03-02-101500", 2), "2024-03-02-101500");
    TimeMachineImports::importBackup(earlier, *archive);
    const auto indexBefore = files::read(archive->directory() / "index.json");
    const auto checkedBefore = files::read(archive->directory() / "checked.json");

    for (int failing = 1;; ++failing) {
        bool threw = false;
        bool reached = false;
        {
            testing::Installed<testing::FailingFileSystem> fileSystem(failing);
            threw = testing::errorText([&] { TimeMachineImports::importBackup(later, *archive); }) !=
                    testing::nothingThrown;
            reached = fileSystem->failed();
        }
        EXPECT_TRUE(BackupLocator::stagedFolders().empty()) << failing;
        EXPECT_TRUE(fs::is_empty(user.temporary())) << failing;
        const auto entries = archive->entries();
        if (entries.size() == 1) {
            // Nothing new is listed: the index and the marks are as they were.
            EXPECT_TRUE(threw) << failing;
            EXPECT_EQ(files::read(archive->directory() / "index.json"), indexBefore) << failing;
            EXPECT_EQ(files::read(archive->directory() / "checked.json"), checkedBefore) << failing;
        } else {
            // The new entry is listed whole: its file is there and decompresses to its content.
            ASSERT_EQ(entries.size(), 2u) << failing;
            const auto staged = archive->stage(entries.front());
            EXPECT_EQ(CalendarDatabase(staged.file()).contentFingerprint(), entries.front().fingerprint) << failing;
            // A failed mark leaves the backup pending; the next import marks it and stores nothing.
            if (threw) {
                EXPECT_EQ(TimeMachineImports::importBackup(later, *archive).which, Case::unchanged) << failing;
            }
        }
        if (!reached) break;
        // Start the next round from the store as it was.
        if (archive->entries().size() == 2) archive->remove(archive->entries().front());
        files::write(archive->directory() / "checked.json", checkedBefore);
        ASSERT_LT(failing, 50) << "the import never ran to its end";
    }
}

TEST_F(TimeMachineImportsTest, OfTwoOpeningsOfAnUncachedBackupOneReadsTheDiskAndTheOtherTheCache) {
    const auto backup = source(snapshotBackup(2), "2024-03-01-101500");
    std::thread second;
    std::string secondLocation;
    whileMounting = [&] {
        // The first opening is mounting now: the second must wait for it rather than mount too.
        second = std::thread([&] { secondLocation = BackupCatalog::open(backup).location; });
        // Time to reach the wait; a slower second opening finds the cache filled all the same.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    };
    auto first = BackupCatalog::open(backup);
    second.join();
    EXPECT_FALSE(first.location.ends_with(" (cached)")) << first.location;
    EXPECT_TRUE(secondLocation.ends_with(" (cached)")) << secondLocation;
    EXPECT_EQ(tools->count("/sbin/mount_apfs "), 1u);
    first.close();
    EXPECT_EQ(tools->count("/sbin/umount "), 1u);
    EXPECT_TRUE(fs::is_empty(user.temporary()));
    // Both editions share one store.
    EXPECT_EQ(TimeMachineImports::forThisApp()->directory(), archive->directory());
}

} // namespace
} // namespace morvane
