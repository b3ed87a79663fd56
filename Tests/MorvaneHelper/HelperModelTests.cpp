#include "MorvaneHelper/HelperModel.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/Fakes.h"
#include "Support/QueuedMainThread.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using Phase = HelperModel::Phase;

class HelperModelTest : public ::testing::Test {
protected:
    void SetUp() override {
        model->setObserver([this] { phases.push_back(model->phase()); });
    }
    void TearDown() override { BackupLocator::removeAllStagedCopies(); }

    void grantBothPermissions() {
        fs::create_directories(fs::path(BackupLocator::liveDBPath()).parent_path());
        fs::create_directories(TimeMachineImports::appStoreContainer());
    }

    // Folder-based backups the recorded tmutil lists, each with a database of `events` events.
    void backups(const std::vector<std::pair<std::string, int>>& stamps) {
        std::string listing;
        for (const auto& [stamp, events] : stamps) {
            const auto folder = user.root().path() / "Backups.backupdb" / stamp;
            if (!fs::exists(folder) && events >= 0) {
                testing::CalendarDatabaseBuilder db(folder / std::string(BackupLocator::relativeDBPath));
                const auto calendar = db.addCalendar({.store = db.addStore({})});
                for (int i = 0; i < events; ++i)
                    db.addItem({.calendar = calendar});
                db.close();
            } else if (events < 0) {
                // A backup whose database is damaged.
                fs::create_directories(folder / std::string(BackupLocator::relativeDBPath));
            }
            listing += folder.string() + "\n";
        }
        tools->answer("/usr/bin/tmutil listbackups", {0, listing});
    }

    bool settled() { return !model->phase().isBusy(); }
    bool pump(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
        return mainThread->pumpUntil(done, timeout);
    }

    testing::TemporaryUser user;
    testing::Installed<testing::RecordingToolLauncher> tools;
    testing::Installed<testing::QueuedMainThread> mainThread;
    testing::Installed<testing::RecordingSystemLog> log;
    std::shared_ptr<HelperModel> model = HelperModel::make(TimeMachineImports::forAppStoreEdition());
    std::vector<Phase> phases;
};

TEST_F(HelperModelTest, WithoutBothPermissionsNothingIsScannedAndLosingOneEmptiesTheList) {
    backups({{"2024-03-01-101500", 1}});
    fs::create_directories(TimeMachineImports::appStoreContainer());
    model->refresh();
    EXPECT_TRUE(model->appStoreEditionOpened());
    EXPECT_FALSE(model->hasFullDiskAccess());
    EXPECT_EQ(model->phase(), Phase::idle());
    EXPECT_TRUE(tools->commandLines().empty());

    grantBothPermissions();
    model->refresh();
    ASSERT_TRUE(pump([&] { return settled(); }));
    EXPECT_EQ(model->pending().size(), 1u);

    fs::remove_all(fs::path(BackupLocator::liveDBPath()).parent_path());
    model->refresh();
    EXPECT_FALSE(model->hasFullDiskAccess());
    EXPECT_TRUE(model->pending().empty());
    EXPECT_EQ(model->phase(), Phase::idle());
    model->importAll(); // nothing pending: nothing starts
    EXPECT_EQ(model->phase(), Phase::idle());
}

TEST_F(HelperModelTest, ARunImportsEveryPendingBackupAndKeepsItsResultOnScreen) {
    grantBothPermissions();
    backups({{"2024-03-01-101500", 2}, {"2024-03-02-101500", 2}, {"2024-03-03-101500", 3}, {"2024-03-04-101500", -1}});
    model->refresh();
    EXPECT_EQ(model->phase(), Phase::scanning());
    model->refresh(); // ignored while scanning
    ASSERT_TRUE(pump([&] { return settled(); }));
    EXPECT_EQ(model->phase(), Phase::idle());
    ASSERT_EQ(model->pending().size(), 4u);

    phases.clear();
    model->importAll();
    model->importAll(); // ignored while importing
    ASSERT_TRUE(pump([&] { return model->phase().which == Phase::Case::finished; }));
    // The rescan that follows a run shows as scanning, then puts the result back.
    ASSERT_TRUE(pump([&] { return !phases.empty() && phases.back() == Phase::finished(2, 4, 1); }));
    ASSERT_TRUE(pump([&] { return settled(); }));

    const std::vector<Phase> expected = {
        Phase::importing(0, 4, ""),
        Phase::importing(0, 4, "Mar 1, 2024, 10:15\u202FAM"),
        Phase::importing(1, 4, "Mar 2, 2024, 10:15\u202FAM"),
        Phase::importing(2, 4, "Mar 3, 2024, 10:15\u202FAM"),
        Phase::importing(3, 4, "Mar 4, 2024, 10:15\u202FAM"),
        Phase::finished(2, 4, 1),
        Phase::scanning(),
        Phase::finished(2, 4, 1),
    };
    std::vector<Phase> seen;
    for (const auto& phase : phases) {
        if (seen.empty() || !(seen.back() == phase)) seen.push_back(phase);
    }
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(model->imported(), 2);
    // Only the unreadable backup is pending again, and its failure went to the log.
    ASSERT_EQ(model->pending().size(), 1u);
    EXPECT_TRUE(model->pending()[0].id().ends_with("2024-03-04-101500"));
    ASSERT_EQ(log->lines().size(), 1u);
    EXPECT_TRUE(log->lines()[0].starts_with("Time Machine Helper: Mar 4, 2024, 10:15\u202FAM: ")) << log->lines()[0];

    // A later refresh keeps the run's result.
    model->refresh();
    ASSERT_TRUE(pump([&] { return settled(); }));
    EXPECT_EQ(model->phase(), Phase::finished(2, 4, 1));
}

TEST_F(HelperModelTest, QuittingStopsARunBetweenBackupsAndLeavesNothingStaged) {
    grantBothPermissions();
    backups({{"2024-03-01-101500", 1}, {"2024-03-02-101500", 2}, {"2024-03-03-101500", 3}});
    model->refresh();
    ASSERT_TRUE(pump([&] { return settled(); }));
    model->importAll();
    ASSERT_TRUE(pump([&] { return model->phase().which == Phase::Case::importing && model->phase().done == 1; }));

    model->quit();
    // The second backup was in hand or not yet started; the third never starts.
    const auto checked = TimeMachineImports::checkedStamps(*model->archive());
    EXPECT_TRUE(checked == std::vector<std::string>{"2024-03-01-101500"} ||
                checked == (std::vector<std::string>{"2024-03-01-101500", "2024-03-02-101500"}))
        << ::testing::PrintToString(checked);
    EXPECT_TRUE(fs::is_empty(user.temporary()));
    // What the run handed over and hadn't been shown yet is dropped, not run later.
    EXPECT_FALSE(pump([&] { return !model->phase().isBusy(); }, std::chrono::milliseconds(200)));
}

} // namespace
} // namespace morvane
