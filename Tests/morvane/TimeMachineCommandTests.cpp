// The helper's flow without its window, end to end: folder-based backups in a temporary tree,
// listed by a recorded tmutil, imported into the App Store edition's store in a temporary home.
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvanePlatform/Files.h"
#include "RunCommandLine.h"
#include "Support/Fakes.h"
#include "Support/FolderBackups.h"
#include "morvane/CommandLine.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

namespace morvane {
namespace {

namespace fs = std::filesystem;

class TimeMachineCommandTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(fs::path(BackupLocator::liveDBPath()).parent_path()); }
    void TearDown() override { BackupLocator::removeAllStagedCopies(); }

    void backups(const std::vector<testing::FolderBackup>& list) {
        testing::folderBackups(*tools, user.root().path() / "Backups.backupdb/Jane's Mac",
                               fs::path("Macintosh HD/Users/jane") / BackupLocator::relativeDBPath, list);
    }

    fs::path store() const { return TimeMachineImports::forAppStoreEdition()->directory(); }

    testing::TemporaryUser user;
    testing::Installed<testing::RecordingToolLauncher> tools;
    testing::Installed<testing::RecordingSystemLog> log;
};

TEST_F(TimeMachineCommandTest, PendingListsTheLatestBackupOfEachDayOldestFirst) {
    backups({{"2024-03-02-090000"}, {"2024-03-01-170000"}, {"2024-03-02-180000"}});
    const auto result = testing::runCommandLine({"timemachine", "pending", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto document = nlohmann::json::parse(result.out);
    ASSERT_EQ(document["sources"].size(), 2u);
    EXPECT_EQ(document["sources"][0]["date"], "2024-03-02T01:00:00Z");
    EXPECT_EQ(document["sources"][1]["date"], "2024-03-03T02:00:00Z");
}

TEST_F(TimeMachineCommandTest, ImportFilesEveryBackupAndASecondRunFindsNothingNew) {
    backups({{"2024-03-01-101500", 2}, {"2024-03-02-101500", 3, true}, {"2024-03-03-101500", 3}});
    const auto first = testing::runCommandLine({"timemachine", "import"});
    EXPECT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.out, "Found 3 backups to copy (one per day), March 1, 2024 to March 3, 2024. This can take a few "
                         "minutes.\n"
                         // No progress bars: the output isn't a terminal.
                         "Copying backup 1 of 3  Mar 1, 2024, 10:15\u202FAM\n"
                         "Copying backup 2 of 3  Mar 2, 2024, 10:15\u202FAM\n"
                         "Copying backup 3 of 3  Mar 3, 2024, 10:15\u202FAM\n"
                         "Done. Added 2 restore points.\n"
                         "2 restore points from Time Machine are in Morvane, on its timeline. Run the helper again "
                         "any time to bring in newer backups.\n");

    EXPECT_EQ(files::read(store() / "checked.json"),
              R"(["2024-03-01-101500","2024-03-02-101500","2024-03-03-101500"])");
    const auto index = nlohmann::json::parse(files::read(store() / "index.json"));
    ASSERT_EQ(index.size(), 2u);
    EXPECT_EQ(index[0]["stamp"], "2024-03-01-101500");
    EXPECT_EQ(index[1]["eventCount"], 3); // read through the live log
    EXPECT_TRUE(fs::is_empty(user.temporary()));

    // The restore point opens as a database with the original's content.
    const auto inspected =
        testing::runCommandLine({"inspect", (store() / "2024-03-02-101500.calsnap").c_str(), "--json"});
    ASSERT_EQ(inspected.status, 0) << inspected.err;
    EXPECT_EQ(nlohmann::json::parse(inspected.out)["fingerprint"], index[1]["fingerprint"]);

    const auto second = testing::runCommandLine({"timemachine", "import"});
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.out, "2 restore points from Time Machine are in Morvane, on its timeline. Run the helper again "
                          "any time to bring in newer backups.\n");
}

TEST_F(TimeMachineCommandTest, AnUnreadableBackupFailsTheRunAndIsTriedAgainNextTime) {
    backups({{"2024-03-01-101500", -1}});
    const auto first = testing::runCommandLine({"timemachine", "import"});
    EXPECT_EQ(first.status, cli::exitFailure);
    EXPECT_THAT(first.out, testing::HasSubstr("The backups couldn't be read.\n1 backup couldn't be read. Is the "
                                              "backup disk still connected? Click Import Backups to try it again.\n"));
    EXPECT_EQ(log->lines().size(), 1u);
    EXPECT_TRUE(fs::is_empty(user.temporary()));

    const auto again = testing::runCommandLine({"timemachine", "import"});
    EXPECT_EQ(again.status, cli::exitFailure);
    EXPECT_EQ(log->lines().size(), 2u);
}

TEST_F(TimeMachineCommandTest, WithoutAccessToTheCalendarsNothingIsImported) {
    fs::remove_all(fs::path(BackupLocator::liveDBPath()).parent_path());
    backups({{"2024-03-01-101500"}});
    const auto result = testing::runCommandLine({"timemachine", "import"});
    EXPECT_EQ(result.status, cli::exitFailure);
    EXPECT_THAT(result.err, testing::HasSubstr("Full Disk Access"));
    EXPECT_EQ(tools->count("/usr/bin/tmutil"), 0u);
}

} // namespace
} // namespace morvane
