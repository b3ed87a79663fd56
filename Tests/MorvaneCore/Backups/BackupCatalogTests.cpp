#include "MorvaneCore/Backups/BackupCatalog.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Backups/SnapshotMount.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvaneCore/SnapshotStore/ICloudBackup.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/CalendarGenerator.h"
#include "Support/ErrorText.h"
#include "Support/EventStoreSnapshots.h"
#include "Support/Fakes.h"
#include "Support/Mapped.h"
#include "Support/SavedEvents.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace morvane {
namespace {

using testing::recordedOutput;
using Kind = BackupSource::Kind;

constexpr const char* listSnapshots = "/usr/bin/tmutil listlocalsnapshotdates /";
constexpr const char* listBackups = "/usr/bin/tmutil listbackups";
constexpr const char* volumeUUID = "4C3A2B1D-9E8F-4A7B-B6C5-D4E3F2A1B0C9";

class BackupCatalogTest : public ::testing::Test {
protected:
    Date stamp(const char* text) { return *dates::parseStamp(text); }
    // The Time Machine part of the list, and its notes.
    static std::pair<std::vector<BackupSource>, std::vector<std::string>> listTimeMachine() {
        std::pair<std::vector<BackupSource>, std::vector<std::string>> listed;
        BackupCatalog::listTimeMachine(listed.first, listed.second);
        return listed;
    }

    testing::TemporaryUser user;
    testing::Installed<testing::RecordingToolLauncher> tools;
    testing::Installed<testing::FakeVolumes> volumes;
};

TEST_F(BackupCatalogTest, ListsLocalSnapshotsAndBackupsFromToolOutput) {
    tools->answer(listSnapshots, {0, recordedOutput("tools/tmutil-listlocalsnapshotdates.txt")});
    tools->answer(listBackups, {0, recordedOutput("tools/tmutil-listbackups.txt")});

    const auto [sources, notes] = listTimeMachine();
    const std::string snapshotPath =
        "/Volumes/.timemachine/4C3A2B1D-9E8F-4A7B-B6C5-D4E3F2A1B0C9/2024-02-26-093012.backup/2024-02-26-093012.backup";
    const std::string folderBackups = "/Volumes/Backup Disk [Old]/Backups.backupdb/Jane\u2019s MacBook (2019)/";
    const std::vector<BackupSource> expected = {
        {Kind::localSnapshot("com.apple.TimeMachine.2024-02-27-221503.local"), stamp("2024-02-27-221503")},
        {Kind::localSnapshot("com.apple.TimeMachine.2024-03-01-101500.local"), stamp("2024-03-01-101500")},
        {Kind::localSnapshot("com.apple.TimeMachine.2024-03-01-111522.local"), stamp("2024-03-01-111522")},
        {Kind::timeMachine(snapshotPath), stamp("2024-02-26-093012")},
        {Kind::timeMachine("/Volumes/.timemachine/4C3A2B1D-9E8F-4A7B-B6C5-D4E3F2A1B0C9/2024-02-28-181544.backup/"
                           "2024-02-28-181544.backup"),
         stamp("2024-02-28-181544")},
        {Kind::timeMachine(folderBackups + "2023-11-02-081500"), stamp("2023-11-02-081500")},
        {Kind::timeMachine(folderBackups + "Latest"), std::nullopt},
    };
    ASSERT_EQ(sources.size(), expected.size());
    for (size_t i = 0; i < sources.size(); ++i) {
        EXPECT_EQ(sources[i].kind, expected[i].kind) << i;
        EXPECT_EQ(sources[i].date, expected[i].date) << i;
        EXPECT_FALSE(sources[i].isPicked);
    }
    EXPECT_TRUE(notes.empty());
}

TEST_F(BackupCatalogTest, TheToolsWordsChooseTheNoteAndSnapshotsStayListed) {
    const std::string fullDiskAccess = "Time Machine backups can't be listed without Full Disk Access.";
    const std::string notConnected = "The Time Machine backup disk isn't connected; only local snapshots are listed.";
    const std::vector<std::pair<std::string, std::string>> cases = {
        // Both phrases: Full Disk Access wins.
        {"tools/tmutil-listbackups-full-disk-access.txt", fullDiskAccess},
        {"tools/tmutil-listbackups-no-machine-directory.txt", notConnected},
        {"tools/tmutil-listbackups-failed-to-mount.txt", notConnected},
    };
    tools->answer(listSnapshots, {0, recordedOutput("tools/tmutil-listlocalsnapshotdates.txt")});
    for (const auto& [file, note] : cases) {
        for (int status : {0, 1, 80}) {
            tools->answer(listBackups, {status, recordedOutput(file)});
            const auto [sources, notes] = listTimeMachine();
            EXPECT_EQ(sources.size(), 3u) << file;
            EXPECT_EQ(notes, std::vector<std::string>{note}) << file << " status " << status;
        }
    }

    // Error text beside a listed path is no reason for a note; a heading alone lists nothing.
    tools->answer(listBackups, {1, "Failed to mount something\n/Volumes/B/Backups.backupdb/M/2024-03-01-101500\n"});
    EXPECT_TRUE(listTimeMachine().second.empty());
    tools->answer(listSnapshots, {0, recordedOutput("tools/tmutil-listlocalsnapshotdates-heading-only.txt")});
    tools->answer(listBackups, {0, ""});
    EXPECT_EQ(listTimeMachine(), decltype(listTimeMachine()){});
}

TEST_F(BackupCatalogTest, SortsNewestFirstWithUndatedSourcesLastInListingOrder) {
    std::vector<BackupSource> sources = {
        {Kind::file("/undated-1"), std::nullopt}, {Kind::file("/old"), Date{10}},
        {Kind::file("/undated-2"), std::nullopt}, {Kind::file("/new"), Date{30}},
        {Kind::file("/middle-a"), Date{20}},      {Kind::file("/middle-b"), Date{20}},
    };
    BackupCatalog::sortNewestFirst(sources);
    EXPECT_EQ(testing::mapped(sources, &BackupSource::id),
              (std::vector<std::string>{"file:/new", "file:/middle-a", "file:/middle-b", "file:/old", "file:/undated-1",
                                        "file:/undated-2"}));
}

TEST_F(BackupCatalogTest, TheWholeListIsNewestFirstWithThisComputersCopiesListedOnce) {
    testing::FakeMachine machine{"HOST-ID", "Jane"};
    ScopedReplacement<Machine> installedMachine(machine);
    // A restore point listed in an index, with a file of its own (unless `withFile` is false).
    const auto list = [&](const std::filesystem::path& folder, const char* when, bool withFile = true) {
        CalendarArchive::Entry entry{when, stamp(when), when, 1, 1, std::nullopt};
        files::createDirectories(folder);
        if (withFile) files::write(folder / entry.fileName(), when);
        auto listed = CalendarArchive::readIndex(folder / "index.json");
        listed.push_back(entry);
        CalendarArchive::writeIndex(listed, folder / "index.json");
    };
    const auto store = CalendarArchive::shared()->directory();
    list(store, "2025-08-10-090000");
    list(store, "2025-08-12-090000");
    list(TimeMachineImports::forThisApp()->directory(), "2025-08-13-090000");
    const auto shared = user.root().makeFolder("shared");
    ICloudBackup::setNamedFolder(shared);
    ICloudBackup::shared()->sync(*CalendarArchive::shared(), stamp("2025-08-15-120000"));
    const auto own = *ICloudBackup::shared()->thisMacsFolder();
    list(own, "2025-08-09-090000"); // a copy whose restore point is no longer in the store
    user.root().write("shared/Studio/mac.json", R"({"id":"STUDIO-ID","name":"Studio"})");
    list(shared / "Studio", "2025-08-11-090000", false);
    list(shared / "Studio", "2025-08-14-090000", false);
    tools->answer(listSnapshots, {0, "2025-08-15-101500\n"});
    tools->answer(listBackups, {0, "/Volumes/Backup/Backups.backupdb/Jane/Latest\n"});

    const auto ids = [](const std::vector<BackupSource>& sources) {
        return testing::mapped(sources, &BackupSource::id);
    };
    const auto app = "app:" + store.string() + "/";
    const auto icloud = "icloud:" + shared.string() + "/";
    const std::vector<std::string> appSnapshots = {
        icloud + "Studio/2025-08-14-090000.calsnap",
        "tmi:" + TimeMachineImports::forThisApp()->directory().string() + "/2025-08-13-090000.calsnap",
        app + "2025-08-12-090000.calsnap",
        icloud + "Studio/2025-08-11-090000.calsnap",
        app + "2025-08-10-090000.calsnap",
        "icloud:" + own.string() + "/2025-08-09-090000.calsnap",
    };
    const auto withoutTimeMachine = BackupCatalog::list(false);
    EXPECT_EQ(ids(withoutTimeMachine.sources), appSnapshots);
    EXPECT_TRUE(tools->commandLines().empty());
    EXPECT_EQ(withoutTimeMachine.sources[0].kind.mac, "Studio");

    auto everything = appSnapshots;
    everything.insert(everything.begin(), "snap:com.apple.TimeMachine.2025-08-15-101500.local");
    everything.push_back("tm:/Volumes/Backup/Backups.backupdb/Jane/Latest");
    EXPECT_EQ(ids(BackupCatalog::list(true).sources), everything);
}

TEST_F(BackupCatalogTest, RunRepairsIllFormedOutput) {
    tools->answer("/usr/bin/tmutil listbackups", {0, "/Volumes/\xff/x\n"});
    const auto result = BackupCatalog::run("/usr/bin/tmutil", {"listbackups"});
    EXPECT_EQ(result.output, "/Volumes/\uFFFD/x\n");
}

TEST_F(BackupCatalogTest, SnapshotOfABackupPathGivesNothingOnAnyProblem) {
    const auto base = std::string("/Volumes/.timemachine/") + volumeUUID;
    // Not a snapshot path, or no stamp after the UUID, or a stamp that isn't a date: no tool runs.
    for (const auto& path : {std::string("/Volumes/Backup/Backups.backupdb/M/2024-03-01-101500"), base, base + "/",
                             base + "/Latest.backup", std::string(".timemachine")}) {
        EXPECT_EQ(BackupCatalog::timeMachineSnapshot(path), std::nullopt) << path;
    }
    EXPECT_TRUE(tools->commandLines().empty());

    // diskutil fails, or answers with something other than a dictionary holding a mount point.
    const auto path = base + "/2024-02-26-093012.backup";
    const std::string diskutil = std::string("/usr/sbin/diskutil info -plist ") + volumeUUID;
    for (const auto& answer : {LaunchResult{1, recordedOutput("tools/diskutil-info.plist")},
                               LaunchResult{-1, "Couldn't launch /usr/sbin/diskutil: No such file or directory"},
                               LaunchResult{0, recordedOutput("tools/diskutil-info-unmounted.plist")},
                               LaunchResult{0, recordedOutput("tools/diskutil-info-array.plist")},
                               LaunchResult{0, "Could not find disk: 4C3A2B1D\n"}, LaunchResult{0, ""},
                               LaunchResult{0, "<plist><dict><key>MountPoint</key><integer>3</integer></dict></plist>"},
                               LaunchResult{0, "<?xml version=\"1.0\"?><plist><dict><key>MountPoint"}}) {
        tools->answer(diskutil, answer);
        EXPECT_EQ(BackupCatalog::timeMachineSnapshot(path), std::nullopt) << answer.output;
    }
}

// The snapshot of a snapshot-based backup, and the disk it is on, come from diskutil.
TEST_F(BackupCatalogTest, PrepareMountsSnapshotsThatAreNotMounted) {
    tools->answer(std::string("/usr/sbin/diskutil info -plist ") + volumeUUID,
                  {0, recordedOutput("tools/diskutil-info.plist")});
    tools->answerPrefix("/sbin/mount_apfs ", {0, ""});
    const std::pair<Kind, std::string> cases[] = {
        // A snapshot-based backup, on the backup disk that diskutil names.
        {Kind::timeMachine(std::string("/Volumes/.timemachine/") + volumeUUID + "/2024-02-26-093012.backup"),
         "com.apple.TimeMachine.2024-02-26-093012.backup /Volumes/Backup Disk (2) "},
        // A local snapshot, on the data volume.
        {Kind::localSnapshot("com.apple.TimeMachine.2024-03-01-101500.local"),
         "com.apple.TimeMachine.2024-03-01-101500.local /System/Volumes/Data "},
    };
    for (const auto& [kind, snapshotAndVolume] : cases) {
        const auto prepared = BackupCatalog::prepare({kind, std::nullopt});
        ASSERT_NE(prepared.mount, nullptr);
        EXPECT_EQ(prepared.root, prepared.mount->mountPoint().string());
        EXPECT_EQ(prepared.mount->mountPoint().parent_path(), user.temporary());
        EXPECT_EQ(tools->commandLines().back(),
                  "/sbin/mount_apfs -o rdonly,nobrowse -s " + snapshotAndVolume + prepared.root);
        prepared.mount->unmount();
    }
}

TEST_F(BackupCatalogTest, PrepareFailsPlainlyWhenTheBackupDiskCantBeTold) {
    const std::string path = "/Volumes/Gone/Backups.backupdb/Mac/2024-03-01-101500";
    EXPECT_EQ(testing::errorText<RestoreError>([&] {
                  BackupCatalog::prepare({Kind::timeMachine(path), std::nullopt});
              }),
              "Can't tell which Time Machine disk " + path + " is on. Is the backup disk connected?");
}

TEST_F(BackupCatalogTest, LiveCalendarResolverReadsAStagedCopyAndLeavesNothingStaged) {
    const auto noLiveDatabase = BackupCatalog::liveCalendarResolver();
    EXPECT_EQ(noLiveDatabase("home", "Home"), std::nullopt);
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());

    const auto live = user.home() / BackupLocator::relativeDBPath;
    std::filesystem::create_directories(live.parent_path());
    {
        testing::CalendarDatabaseBuilder db(live);
        db.addCalendar({.store = db.addStore({.name = "iCloud", .type = std::int64_t{2}}),
                        .title = "Home",
                        .externalID = "/1234/calendars/home/"});
    }
    const auto resolver = BackupCatalog::liveCalendarResolver();
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
    ASSERT_TRUE(resolver("home", std::nullopt));
    EXPECT_EQ(resolver("home", std::nullopt)->title, "Home");
}

TEST_F(BackupCatalogTest, SourceForAPathClassesWhatTheUserPicked) {
    using Case = Kind::Case;
    const auto& root = user.root();
    const auto kindOf = [](const std::string& path) { return BackupCatalog::source(path).kind.which; };

    // Named backups need not exist to be told.
    const auto backup = BackupCatalog::source("/Volumes/B/.timemachine/X/2024-03-01-120000.backup/Data");
    EXPECT_EQ(backup.kind, Kind::timeMachine("/Volumes/B/.timemachine/X/2024-03-01-120000.backup/Data"));
    EXPECT_FALSE(backup.date);
    EXPECT_EQ(BackupCatalog::source("com.apple.TimeMachine.2024-03-01-120000.local").kind,
              Kind::localSnapshot("com.apple.TimeMachine.2024-03-01-120000.local"));

    const auto stored = BackupCatalog::source("~/Snapshots/2024-03-01-120000.calevents");
    EXPECT_EQ(stored.kind, Kind::appSnapshot((user.home() / "Snapshots/2024-03-01-120000.calevents").string()));
    EXPECT_EQ(stored.date, stamp("2024-03-01-120000"));
    EXPECT_EQ(kindOf("/x/kept.calsnap"), Case::appSnapshot);
    EXPECT_FALSE(BackupCatalog::source("/x/kept.calsnap").date);

    // A folder of calendar folders holding .ics files, dated by its name.
    root.write("2024-03-01-120000/home/a.ICS", "BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n");
    const auto archive = BackupCatalog::source((root.path() / "2024-03-01-120000").string());
    EXPECT_EQ(archive.kind.which, Case::icsArchive);
    EXPECT_EQ(archive.date, stamp("2024-03-01-120000"));

    // A database wins over .ics files beside it; any plain file is a database to try.
    root.write("both/work/a.ics");
    root.write(std::filesystem::path("both") / BackupLocator::relativeDBPath);
    EXPECT_EQ(kindOf((root.path() / "both").string()), Case::file);
    EXPECT_EQ(kindOf((root.path() / "2024-03-01-120000/home/a.ICS").string()), Case::file);
    EXPECT_EQ(kindOf((root.path() / "missing").string()), Case::file);
    root.write("plain/notes.txt");
    EXPECT_EQ(kindOf((root.path() / "plain").string()), Case::file);
}

TEST_F(BackupCatalogTest, AnOpenedSnapshotGivesBackItsCopyAndMountHoweverItsOwnerLetsGo) {
    // A local snapshot whose mount shows a whole volume with a database in jane's home.
    const auto volume = user.root().path() / "volume";
    const auto database = volume / "Users/jane" / BackupLocator::relativeDBPath;
    testing::generateCalendarFile(database, 5, 1);
    tools->simulate("/sbin/mount_apfs ", [&](const std::vector<std::string>& arguments) {
        std::filesystem::copy(volume, arguments.back(), std::filesystem::copy_options::recursive);
        return LaunchResult{0, ""};
    });
    tools->simulate("/sbin/umount ", [](const std::vector<std::string>& arguments) {
        for (const auto& entry : std::filesystem::directory_iterator(arguments.back()))
            std::filesystem::remove_all(entry.path());
        return LaunchResult{0, ""};
    });
    const BackupSource snapshot(Kind::localSnapshot("com.apple.TimeMachine.2024-03-01-101500.local"), std::nullopt);

    const auto nothingLeft = [&](size_t openings) {
        EXPECT_EQ(tools->count("/sbin/mount_apfs "), openings);
        EXPECT_EQ(tools->count("/sbin/umount "), openings);
        EXPECT_TRUE(std::filesystem::is_empty(user.temporary()));
        EXPECT_TRUE(BackupLocator::stagedFolders().empty());
    };
    {
        const auto opened = BackupCatalog::openUncached(snapshot);
        ASSERT_TRUE(opened.stagedCopy && opened.mount && opened.mount->mounted());
        EXPECT_FALSE(opened.store->loadEvents().empty());
    }
    nothingLeft(1);
    EXPECT_EQ(testing::errorText([&] {
                  const auto opened = BackupCatalog::openUncached(snapshot);
                  throw RestoreError("reading it failed");
              }),
              "reading it failed");
    nothingLeft(2);
    // Failing after the mount, on a database that doesn't open.
    files::write(database, std::string(4096, 'x'));
    EXPECT_THROW(BackupCatalog::openUncached(snapshot), SQLiteError);
    nothingLeft(3);
}

TEST_F(BackupCatalogTest, EverySourceKindOpensAndClosesLeavingNothingBehind) {
    const auto& root = user.root();
    // A database in a home folder's layout, the same stored as a restore point, an event store
    // document and a folder of .ics files.
    const auto database = root.path() / "home" / BackupLocator::relativeDBPath;
    testing::generateCalendarFile(database, 40, 3);
    const auto calsnap = root.write("Snapshots/2024-03-01-120000.calsnap",
                                    compression::compress(CalendarArchive::readCoordinated(database)));
    const auto calevents = root.path() / "Snapshots/2024-03-02-120000.calevents";
    {
        EKEventStore store(root.path() / "live/Calendar.sqlitedb");
        testing::saveEvent(store, "Dentist", 760000000.0, 760003600.0);
        testing::writeEventStoreSnapshot(store, calevents, Date{760100000.0});
    }
    root.write("ics/home/a.ics", "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:a\r\nDTSTART:20240301T090000Z\r\n"
                                 "SUMMARY:Walk\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");

    struct Expected {
        BackupSource source;
        bool staged;
        std::string location;
    };
    const std::vector<Expected> cases = {
        {{Kind::file((root.path() / "home").string()), std::nullopt}, true, database.string()},
        {{Kind::appSnapshot(calsnap.string()), std::nullopt}, true, calsnap.string()},
        {{Kind::timeMachineImport(calsnap.string()), std::nullopt}, true, calsnap.string()},
        {{Kind::iCloudSnapshot(calevents.string(), "iMac"), std::nullopt}, false, calevents.string()},
        {{Kind::icsArchive((root.path() / "ics").string()), std::nullopt}, false, (root.path() / "ics").string()},
    };
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.source.id());
        auto opened = BackupCatalog::open(expected.source);
        EXPECT_EQ(opened.location, expected.location);
        EXPECT_EQ(static_cast<bool>(opened.stagedCopy), expected.staged);
        EXPECT_EQ(opened.mount, nullptr);
        EXPECT_FALSE(opened.store->loadEvents().empty());
        opened.close();
        opened.close();
        EXPECT_TRUE(std::filesystem::is_empty(user.temporary()));
    }
    EXPECT_EQ(
        BackupCatalog::open({Kind::appSnapshot(calevents.string()), std::nullopt}).store->loadEvents().front().title(),
        "Dentist");
    EXPECT_TRUE(tools->commandLines().empty());
}

} // namespace
} // namespace morvane
