#include "MorvaneCore/Backups/BackupLocator.h"

#include "MorvaneCore/Shared/Errors.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/Fakes.h"
#include "Support/SavedEvents.h"

#include <atomic>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view relative = BackupLocator::relativeDBPath;

class BackupLocatorTest : public ::testing::Test {
protected:
    void TearDown() override { BackupLocator::removeAllStagedCopies(); }

    // Puts a database at `folder` (relative to the test's root) in the home layout.
    fs::path homeDatabase(const std::string& folder) {
        return user.root().write(fs::path(folder) / relative, "SQLite format 3");
    }
    fs::path find(const fs::path& root) { return BackupLocator::findDatabase(root.string(), "jane"); }

    unsigned mode(const fs::path& file) {
        struct stat info {};
        ::stat(file.c_str(), &info);
        return info.st_mode & 0777;
    }

    testing::TemporaryUser user;
};

TEST_F(BackupLocatorTest, LiveDatabaseLiesInTheHomeFolder) {
    EXPECT_EQ(BackupLocator::liveDBPath(),
              user.home().string() + "/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb");
    EXPECT_FALSE(BackupLocator::canReadLiveDatabase());
    user.root().makeFolder("home/Library/Group Containers/group.com.apple.calendar");
    EXPECT_TRUE(BackupLocator::canReadLiveDatabase());
}

TEST_F(BackupLocatorTest, UsersFolderWinsOnALevelAndHigherLevelsWinOverLower) {
    const auto volume = user.root().makeFolder("volume");
    const auto inHome = homeDatabase("volume");
    const auto inUsers = homeDatabase("volume/Users/jane");
    EXPECT_EQ(find(volume), inUsers);
    fs::remove(inUsers);
    EXPECT_EQ(find(volume), inHome);

    // A higher level beats a lower one, whatever the names; folders are searched in name order.
    const auto backup = user.root().makeFolder("backup");
    homeDatabase("backup/B Disk/Deep/Users/jane");
    const auto shallow = homeDatabase("backup/Z Disk/Users/jane");
    EXPECT_EQ(find(backup), shallow);
    const auto first = homeDatabase("backup/A Disk/Users/jane");
    EXPECT_EQ(find(backup), first);
}

// The root and three levels below it are searched.
TEST_F(BackupLocatorTest, SkipsSystemFoldersLinksAndDeeperLevelsButEntersAnyOtherName) {
    const auto root = user.root().makeFolder("root");
    homeDatabase("root/1/2/3/4");
    for (const char* skipped : {"System", "Applications", "Library", "private", "usr"}) {
        homeDatabase(std::string("root/") + skipped + "/home");
        homeDatabase(std::string("root/Volume/") + skipped + "/home");
    }
    // "Users" is only reached through the candidate path, for the given user.
    homeDatabase("root/Users/someone-else");
    fs::create_directory_symlink(user.root().makeFolder("elsewhere"), root / "link");
    homeDatabase("elsewhere");
    EXPECT_THROW(find(root), BackupLocatorError);

    const auto found = homeDatabase("root/.hidden name [x]/2/3");
    EXPECT_EQ(find(root), found);
}

// The words of a failed search, the command line's tests check.
TEST_F(BackupLocatorTest, TheRootIsExpandedAndAFileIsTakenAsItIs) {
    homeDatabase("home");
    EXPECT_EQ(BackupLocator::findDatabase("~", "jane"), user.home() / relative);
    const auto file = user.root().write("picked/anything.bin", "not a database");
    EXPECT_EQ(find(file), file);
}

TEST_F(BackupLocatorTest, UnlistableFoldersCountAsEmpty) {
    const auto root = user.root().makeFolder("root");
    homeDatabase("root/locked/inside");
    const auto reachable = homeDatabase("root/open/inside/deeper");
    fs::permissions(root / "locked", fs::perms::none);

    // Root lists every folder, so the search runs as an unprivileged user in a child process;
    // the tree is opened up for that user, all but the locked folder.
    const auto top = user.root().path();
    if ((fs::status(top.parent_path()).permissions() & fs::perms::others_exec) == fs::perms::none)
        GTEST_SKIP() << top.parent_path() << " can't be entered by other users";
    for (auto folder = root; folder != top.parent_path(); folder = folder.parent_path())
        fs::permissions(folder, fs::perms::others_read | fs::perms::others_exec, fs::perm_options::add);
    for (const auto& entry : fs::recursive_directory_iterator(root / "open"))
        fs::permissions(entry.path(), fs::perms::others_read | fs::perms::others_exec, fs::perm_options::add);

    const pid_t child = ::fork();
    if (child == 0) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(3);
        try {
            ::_exit(find(root) == reachable ? 0 : 1);
        } catch (...) {
            ::_exit(2);
        }
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: another database was found, 2: the search failed";
}

TEST_F(BackupLocatorTest, StagesTheDatabaseWithItsCompanionsPrivately) {
    const auto database = user.root().write("backup/Calendar.sqlitedb", "main");
    user.root().write("backup/Calendar.sqlitedb-wal", "wal");
    user.root().write("backup/Calendar.sqlitedb-shm", "shm");
    for (const char* suffix : {"", "-wal", "-shm"})
        fs::permissions(database.string() + suffix, fs::perms::owner_read);

    auto staged = BackupLocator::stageCopy(database);
    const auto file = staged.file();
    const auto folder = file.parent_path();
    EXPECT_EQ(file.filename(), "Calendar.sqlitedb");
    EXPECT_EQ(folder.parent_path(), user.temporary());
    EXPECT_TRUE(folder.filename().string().starts_with("morvane-"));
    EXPECT_EQ(files::read(file), "main");
    EXPECT_EQ(files::read(file.string() + "-wal"), "wal");
    EXPECT_EQ(files::read(file.string() + "-shm"), "shm");
    EXPECT_EQ(mode(file.string() + "-shm"), 0600u) << "even of a read-only original";
    staged.remove();
    EXPECT_EQ(files::read(database), "main");

    // Only the companions that exist.
    fs::remove(database.string() + "-shm");
    const auto withLog = BackupLocator::stageCopy(database);
    EXPECT_EQ(std::distance(fs::directory_iterator(withLog.file().parent_path()), fs::directory_iterator()), 2);
}

// Under the usual umask a file is created 0644: the copy of someone's calendars would be open to
// every user of the machine while it is written, unless it is private from its creation.
TEST_F(BackupLocatorTest, StagedCopiesArePrivateFromTheFirstByte) {
    const auto database = user.root().write("backup/Calendar.sqlitedb");
    fs::resize_file(database, 64 << 20);
    user.root().write("backup/Calendar.sqlitedb-wal", "wal");

    const mode_t previous = ::umask(022);
    std::atomic<bool> copying = true;
    std::vector<std::string> exposed;
    int filesSeen = 0;
    std::thread watcher([&] {
        while (copying) {
            std::error_code error;
            for (fs::recursive_directory_iterator entry(user.temporary(), error), end; !error && entry != end;
                 entry.increment(error)) {
                struct stat info {};
                if (::lstat(entry->path().c_str(), &info) != 0) continue;
                const bool folder = S_ISDIR(info.st_mode);
                filesSeen += folder ? 0 : 1;
                if ((info.st_mode & 0777) != (folder ? 0700u : 0600u)) exposed.push_back(entry->path().string());
            }
        }
    });
    {
        const auto staged = BackupLocator::stageCopy(database);
        const auto data = BackupLocator::stageData("data", "Calendar.sqlitedb");
        copying = false;
        watcher.join();
        for (const auto& file : {staged.file(), data.file()}) {
            EXPECT_EQ(mode(file.parent_path()), 0700u);
            EXPECT_EQ(mode(file), 0600u);
        }
    }
    ::umask(previous);
    EXPECT_TRUE(exposed.empty()) << exposed.front();
    EXPECT_GT(filesSeen, 0) << "the copy ended before it could be watched";
}

TEST_F(BackupLocatorTest, AStagedCopyGoesWhenItsLastOwnerLetsGo) {
    const auto database = user.root().write("backup/Calendar.sqlitedb", "main");
    fs::path folder;
    {
        const auto staged = BackupLocator::stageCopy(database);
        folder = staged.file().parent_path();
    }
    EXPECT_FALSE(fs::exists(folder));

    // Handed on, the copy stays until its new owner lets go; the one it came from holds nothing.
    StagedCopy kept;
    {
        auto staged = BackupLocator::stageCopy(database);
        kept = std::move(staged);
    }
    ASSERT_TRUE(fs::exists(kept.file()));
    kept = BackupLocator::stageCopy(database);
    EXPECT_EQ(BackupLocator::stagedFolders(), std::vector<fs::path>{kept.file().parent_path()});
    kept.remove();
    EXPECT_TRUE(fs::is_empty(user.temporary()));
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
}

// What a copy that fails on a companion says, and that it leaves nothing, the command line's tests
// check; a temporary folder that can't hold a new folder fails the same way.
TEST_F(BackupLocatorTest, AFailedCopyLeavesNothingBehind) {
    const auto database = user.root().write("backup/Calendar.sqlitedb", "main");
    testing::Installed<testing::FakeUserFolders> folders(user.home(), user.root().write("plain-file"));
    EXPECT_THROW(BackupLocator::stageCopy(database), BackupLocatorError);
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
}

TEST_F(BackupLocatorTest, StagesDataUnderItsName) {
    const auto staged = BackupLocator::stageData(std::string("\0bytes", 6), "2024-03-01-101500.sqlite");
    EXPECT_EQ(staged.file().filename(), "2024-03-01-101500.sqlite");
    EXPECT_EQ(files::read(staged.file()), std::string("\0bytes", 6));

    // A failed write takes its folder away again.
    {
        testing::Installed<testing::FailingFileSystem> fullDisk(2);
        EXPECT_THROW(BackupLocator::stageData("x", "Calendar.sqlitedb"), PlatformError);
        ASSERT_TRUE(fullDisk->failed());
    }
    EXPECT_EQ(BackupLocator::stagedFolders(), std::vector<fs::path>{staged.file().parent_path()});
    BackupLocator::removeAllStagedCopies();
    EXPECT_TRUE(fs::is_empty(user.temporary()));
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
}

TEST_F(BackupLocatorTest, RemovingTrustsTheCallerButOnlyForStagedFolders) {
    const auto unregistered = user.root().write("tmp/morvane-ABC/Calendar.sqlitedb", "x");
    BackupLocator::removeStagedCopy(unregistered);
    EXPECT_FALSE(fs::exists(unregistered.parent_path()));

    const auto elsewhere = user.root().write("home/Documents/Calendar.sqlitedb", "keep");
    BackupLocator::removeStagedCopy(elsewhere);
    EXPECT_EQ(files::read(elsewhere), "keep");
}

TEST_F(BackupLocatorTest, TheLiveIndexReadsTheDatabaseElseCapturesTheStoreOnceElseGivesNothing) {
    testing::Installed<testing::ScriptedCalendarPermission> permission;
    permission->currentStatus = EKAuthorizationStatus::fullAccess;
    testing::Installed<testing::FixedClock> clock{0};
    const fs::path elsewhere = user.root().path() / "elsewhere.sqlitedb";
    int asked = 0;
    std::function<std::shared_ptr<EKEventStore>()> eventStore = [&] {
        ++asked;
        return std::make_shared<EKEventStore>(elsewhere);
    };
    testing::saveEvent(*std::make_shared<EKEventStore>(elsewhere), "Captured", 3600, 7200);
    const auto named = [](const std::string& uid) {
        BackupEvent event;
        event.uniqueIdentifier = uid;
        return event;
    };

    {
        testing::CalendarDatabaseBuilder live(BackupLocator::liveDBPath());
        live.addItem({.calendar = live.addCalendar({.store = live.addStore({})}), .uniqueIdentifier = "LIVE"});
        live.setOccurrenceWindow(0, 86400, "UTC");
    }
    auto index = BackupLocator::liveIndex(eventStore);
    ASSERT_TRUE(index);
    EXPECT_TRUE(index->contains(named("LIVE")));
    EXPECT_EQ(asked, 0);
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());

    // A live file that doesn't read as a database: the store's capture, with the store to ask.
    files::write(BackupLocator::liveDBPath(), "not a database");
    index = BackupLocator::liveIndex(eventStore);
    ASSERT_TRUE(index);
    EXPECT_EQ(asked, 1);
    EXPECT_FALSE(index->contains(named("LIVE")));
    EXPECT_TRUE(index->hasEquivalent("Captured", Date{3600}));
    EXPECT_EQ(files::read(BackupLocator::liveDBPath()), "not a database");
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());

    eventStore = [&]() -> std::shared_ptr<EKEventStore> {
        ++asked;
        throw EventStoreError("The store is gone.");
    };
    EXPECT_FALSE(BackupLocator::liveIndex(eventStore));
    permission->currentStatus = EKAuthorizationStatus::denied;
    EXPECT_FALSE(BackupLocator::liveIndex(eventStore));
    EXPECT_EQ(asked, 2);
}

} // namespace
} // namespace morvane
