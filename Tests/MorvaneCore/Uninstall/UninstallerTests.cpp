#include "MorvaneCore/Uninstall/Uninstaller.h"

#include "MorvaneCore/Backups/BackupCache.h"
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvaneCore/SnapshotStore/ICloudBackup.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvanePlatform/Accounts.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserDefaults.h"
#include "Support/Fakes.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;

class UninstallerTest : public ::testing::Test {
protected:
    // A restore point listed in the store's index, with `bytes` of file.
    static void store(const CalendarArchive& archive, const std::string& stamp, std::size_t bytes) {
        files::createDirectories(archive.directory());
        files::write(archive.directory() / (stamp + ".calsnap"), std::string(bytes, 'x'));
        CalendarArchive::Entry entry{stamp, {}, "F", 1, static_cast<std::int64_t>(bytes), std::nullopt};
        CalendarArchive::writeIndex({entry}, archive.directory() / "index.json");
    }

    static bool iCloudBackupOn() {
        return UserDefaults::current().boolForKey(std::string(ICloudBackup::enabledKey)).value_or(false);
    }

    testing::TemporaryUser user;
    const fs::path snapshots = CalendarArchive::shared()->directory();
    const fs::path imports = TimeMachineImports::forThisApp()->directory();
    const fs::path cache = BackupCache::shared().directory();
};

TEST_F(UninstallerTest, MeasuresAllocatedSpaceHiddenFilesIncluded) {
    EXPECT_EQ(Uninstaller::sizes(), Uninstaller::Sizes{}) << "nothing on the disk, no folder of copies";

    store(*CalendarArchive::shared(), "2024-06-01-120000", 100);
    store(*TimeMachineImports::forThisApp(), "2024-05-01-120000", 20000);
    files::write(snapshots / ".hidden", std::string(9000, 'h'));
    files::createDirectories(cache / "deep" / "er");
    files::write(cache / "deep" / "er" / "copy.calsnap", "c");
    fs::create_symlink("/usr/bin", cache / "link");

    const auto sizes = Uninstaller::sizes();
    EXPECT_EQ(sizes.snapshots, 1);
    EXPECT_EQ(sizes.timeMachineImports, 1);
    EXPECT_GE(sizes.snapshotBytes, 9100) << "the hidden file counts";
    EXPECT_GE(sizes.timeMachineImportBytes, 20000);
    EXPECT_GT(sizes.cacheBytes, 0);
    EXPECT_LT(sizes.cacheBytes, 1 << 20) << "the link isn't followed";
    EXPECT_EQ(sizes.cacheBytes % 512, 0) << "blocks, not lengths";
    EXPECT_EQ(sizes.localBytes(), sizes.snapshotBytes + sizes.timeMachineImportBytes);
    EXPECT_FALSE(sizes.iCloudBytes.has_value());

    EXPECT_EQ(Uninstaller::size(user.home() / "missing"), 0);
    EXPECT_EQ(Uninstaller::size(snapshots / "index.json"), 0) << "a file is no folder";
}

TEST_F(UninstallerTest, AlwaysTakesTheCacheStagedCopiesAccountsAndCopyingAwayAndTheStoresOnlyWhenAsked) {
    EXPECT_TRUE(Uninstaller::removeData(true, true).empty()) << "nothing on the disk is no failure";

    store(*CalendarArchive::shared(), "2024-06-01-120000", 100);
    files::createDirectories(cache);
    files::write(cache / "copy.calsnap", "c");
    const auto staged = BackupLocator::stageData("data", "Calendar.sqlitedb");
    UserDefaults::current().setBool(std::string(ICloudBackup::enabledKey), true);
    accounts::save({{{"work", "https://dav.example.com/", "jane", "pw", std::nullopt, false}}, "work"});

    EXPECT_TRUE(Uninstaller::removeData(false, false).empty());
    EXPECT_FALSE(fs::exists(accounts::file())) << "passwords never stay behind";
    EXPECT_FALSE(fs::exists(cache));
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
    EXPECT_FALSE(fs::exists(staged.file()));
    EXPECT_FALSE(iCloudBackupOn());
    EXPECT_TRUE(fs::exists(snapshots / "index.json"));
}

TEST_F(UninstallerTest, RemovesTheProductFolderOnlyWhenNothingButDotFilesIsLeft) {
    const auto product = snapshots.parent_path();
    for (const auto* other : {".DS_Store", "Notes"}) {
        store(*CalendarArchive::shared(), "2024-06-01-120000", 100);
        store(*TimeMachineImports::forThisApp(), "2024-05-01-120000", 100);
        files::write(product / other, "");

        EXPECT_TRUE(Uninstaller::removeData(true, false).empty());
        EXPECT_FALSE(fs::exists(snapshots));
        EXPECT_FALSE(fs::exists(imports));
        EXPECT_EQ(fs::exists(product), std::string(other) == "Notes") << other;
    }
}

TEST_F(UninstallerTest, NamesEachFolderThatCouldNotBeRemovedAndGoesOn) {
    store(*CalendarArchive::shared(), "2024-06-01-120000", 100);
    store(*TimeMachineImports::forThisApp(), "2024-05-01-120000", 100);
    UserDefaults::current().setBool(std::string(ICloudBackup::enabledKey), true);
    // The first change to the disk is the removal of the restore points' folder.
    testing::Installed<testing::FailingFileSystem> disk(1);

    const auto failures = Uninstaller::removeData(true, false);
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0], "Snapshots: Couldn't write " + snapshots.string() + ": No space left on device");
    EXPECT_TRUE(fs::exists(snapshots));
    EXPECT_FALSE(fs::exists(imports));
    EXPECT_TRUE(fs::exists(snapshots.parent_path()));
    EXPECT_FALSE(iCloudBackupOn());
}

} // namespace
} // namespace morvane
