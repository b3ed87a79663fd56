#include "MorvaneHelper/HelperModel.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvaneHelper/HelperShell.h"
#include "MorvanePlatform/Error.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/Trash.h"
#include "MorvanePlatform/UserDefaults.h"
#include "Support/Fakes.h"
#include "Support/FolderBackups.h"

#include <condition_variable>
#include <deque>
#include <gtest/gtest.h>
#include <unistd.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using Phase = HelperModel::Phase;

// Answers the alerts from a script, records them, and ends nothing.
class ScriptedShell final : public HelperShell {
public:
    std::deque<AlertAnswer> answers;
    std::vector<Alert> alerts;
    int windowsClosed = 0;
    std::optional<int> exitStatus;

    AlertAnswer runAlert(const Alert& alert) override {
        alerts.push_back(alert);
        if (answers.empty()) return {.button = static_cast<int>(alert.buttons.size()) - 1};
        const auto answer = answers.front();
        answers.pop_front();
        return answer;
    }
    void closeAllWindows() override { ++windowsClosed; }
    void exit(int status) override { exitStatus = status; }
};

// A main thread without a window's event loop: the test's thread, which runs the work handed over
// from background threads when the test pumps.
class QueuedMainThread final : public MainThread {
public:
    bool run(const std::function<void()>& work, std::stop_token stop) override {
        if (std::this_thread::get_id() == owner_) {
            work();
            return true;
        }
        const auto handedOver = std::make_shared<HandedOverWork>(work);
        {
            std::lock_guard guard(lock_);
            queue_.push_back(handedOver);
        }
        changed_.notify_all();
        return handedOver->wait(stop);
    }

    // Runs handed-over work, in order, until `done` holds or `timeout` has passed.
    bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!done()) {
            std::shared_ptr<HandedOverWork> next;
            {
                std::unique_lock guard(lock_);
                if (!changed_.wait_until(guard, deadline, [this] { return !queue_.empty(); })) return done();
                next = std::move(queue_.front());
                queue_.pop_front();
            }
            next->run();
        }
        return true;
    }

private:
    const std::thread::id owner_ = std::this_thread::get_id();
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<std::shared_ptr<HandedOverWork>> queue_; // guarded by lock_
};

// A trash that refuses everything, as one on another volume would.
class RefusingTrash final : public Trash {
public:
    fs::path trashItem(const fs::path& item) override { throw PlatformError("Couldn't move " + item.string()); }
};

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

    void backups(const std::vector<testing::FolderBackup>& list) {
        testing::folderBackups(*tools, user.root().path() / "Backups.backupdb", BackupLocator::relativeDBPath, list);
    }

    bool settled() { return !model->phase().isBusy(); }
    bool pump(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
        return mainThread->pumpUntil(done, timeout);
    }

    testing::TemporaryUser user;
    testing::Installed<testing::RecordingToolLauncher> tools;
    testing::Installed<QueuedMainThread> mainThread;
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

// The same, for removing the helper: an application bundle to trash, and alerts answered from a
// script.
class HelperRemovalTest : public HelperModelTest {
protected:
    void SetUp() override {
        HelperModelTest::SetUp();
        files::createDirectories(bundlePath.parent_path());
        files::write(bundlePath, "helper");
        UserDefaults::current().setBool("seen", true);
    }
    // Restore points listed in the store's index; only their count matters here.
    void restorePoints(int count) {
        std::vector<CalendarArchive::Entry> entries;
        for (int i = 0; i < count; ++i)
            entries.push_back({.stamp = "2024-03-0" + std::to_string(i + 1) + "-101500",
                               .date = Date{731000000.0 + i * 86400.0},
                               .fingerprint = "f"});
        files::createDirectories(model->archive()->directory());
        CalendarArchive::writeIndex(entries, model->archive()->directory() / "index.json");
    }

    fs::path trashed() const { return user.home() / ".local/share/Trash/files/MorvaneHelper"; }
    fs::path preferences() const {
        return user.home() / "Library/Preferences" / (std::string(helperBundleID) + ".plist");
    }

    const fs::path bundlePath = user.home() / "Applications/MorvaneHelper";
    testing::Installed<testing::FakeBundle> bundle{bundlePath, std::string(helperBundleID)};
    testing::Installed<testing::RecordingWorkspace> workspace;
    testing::Installed<ScriptedShell> shell;
};

TEST_F(HelperRemovalTest, CancellingChangesNothingAndConfirmingWithoutTheCheckboxKeepsTheRestorePoints) {
    restorePoints(1);
    const auto staged = BackupLocator::stageData("data", "Calendar.sqlitedb");
    ASSERT_TRUE(fs::exists(preferences()));

    model->confirmRemove();

    EXPECT_EQ(
        shell->alerts,
        (std::vector<Alert>{{.message = "Remove the Time Machine Helper?",
                             .informativeText = "It moves to the Trash. Morvane keeps working with its own snapshots.",
                             .buttons = {"Remove Helper", "Cancel"},
                             .firstButtonDestructive = true,
                             .checkbox = "Also delete the 1 Time Machine restore point it brought into Morvane"}}));
    for (const auto& kept : {staged.file(), bundlePath, model->archive()->directory() / "index.json", preferences()})
        EXPECT_TRUE(fs::exists(kept)) << kept;
    EXPECT_EQ(shell->windowsClosed, 0);
    EXPECT_FALSE(shell->exitStatus);

    shell->answers = {{.button = 0, .checkboxOn = false}, {.button = 1}};
    model->confirmRemove();
    EXPECT_TRUE(fs::exists(model->archive()->directory() / "index.json"));
    EXPECT_TRUE(fs::exists(trashed()));
    EXPECT_TRUE(workspace->openedURLs().empty());
    EXPECT_EQ(shell->exitStatus, 0);

    // Without restore points there is no checkbox to offer.
    fs::remove_all(model->archive()->directory());
    shell->answers = {{.button = 1}};
    model->confirmRemove();
    EXPECT_FALSE(shell->alerts.back().checkbox);
}

TEST_F(HelperRemovalTest, ConfirmingWithTheCheckboxDeletesTheRestorePointsAndTrashesTheHelper) {
    restorePoints(3);
    const auto staged = BackupLocator::stageData("data", "Calendar.sqlitedb");
    shell->answers = {{.button = 0, .checkboxOn = true}, {.button = 0}};

    model->confirmRemove();

    ASSERT_EQ(shell->alerts.size(), 2u);
    EXPECT_EQ(shell->alerts[0].checkbox, "Also delete the 3 Time Machine restore points it brought into Morvane");
    EXPECT_FALSE(fs::exists(staged.file()));
    EXPECT_FALSE(fs::exists(model->archive()->directory()));

    EXPECT_FALSE(fs::exists(bundlePath));
    EXPECT_EQ(files::read(trashed()), "helper");
    const auto info = files::read(user.home() / ".local/share/Trash/info/MorvaneHelper.trashinfo");
    EXPECT_TRUE(info.starts_with("[Trash Info]\nPath=" + bundlePath.string() + "\nDeletionDate=")) << info;

    EXPECT_EQ(
        shell->alerts[1],
        (Alert{.message = "The Time Machine Helper was moved to the Trash",
               .informativeText = "macOS keeps its entry under Full Disk Access until you remove it: in Privacy & "
                                  "Security → Full Disk Access, select Morvane Time Machine Helper and click −.",
               .buttons = {"Open Privacy & Security", "Done"}}));
    EXPECT_EQ(workspace->openedURLs(), (std::vector<std::string>{privacySettingsURL}));
    EXPECT_TRUE(workspace->revealed().empty());

    EXPECT_FALSE(fs::exists(preferences()));
    EXPECT_EQ(shell->windowsClosed, 1);
    EXPECT_EQ(shell->exitStatus, 0);
}

TEST_F(HelperRemovalTest, AFailedMoveToTheTrashRevealsTheHelperAndStillEnds) {
    testing::Installed<RefusingTrash> trash;
    shell->answers = {{.button = 0}, {.button = 1}};

    model->confirmRemove();

    EXPECT_EQ(shell->alerts.at(1).message, "Drag the Time Machine Helper to the Trash to finish");
    EXPECT_TRUE(fs::exists(bundlePath));
    EXPECT_EQ(workspace->revealed(), (std::vector<fs::path>{bundlePath}));
    EXPECT_FALSE(fs::exists(preferences()));
    EXPECT_EQ(shell->exitStatus, 0);
}

TEST_F(HelperRemovalTest, ARestorePointFolderThatCantBeDeletedIsReportedAndStopsNothing) {
    restorePoints(1);
    const auto folder = model->archive()->directory();
    // Removing the folder's contents needs write permission on the folder.
    fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec);
    if (::access(folder.c_str(), W_OK) == 0) GTEST_SKIP() << "running with privileges that ignore permissions";
    shell->answers = {{.button = 0, .checkboxOn = true}, {.button = 1}};

    model->confirmRemove();
    fs::permissions(folder, fs::perms::owner_all);

    EXPECT_EQ(shell->alerts.at(1).informativeText,
              "macOS keeps its entry under Full Disk Access until you remove it: in Privacy & Security → Full Disk "
              "Access, select Morvane Time Machine Helper and click −.\n\nCouldn't delete the restore points: "
              "Permission denied");
    EXPECT_TRUE(fs::exists(trashed()));
    EXPECT_EQ(shell->exitStatus, 0);
}

} // namespace
} // namespace morvane
