#include "MorvaneHelper/HelperModel.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvaneHelper/HelperShell.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/Trash.h"
#include "MorvanePlatform/UserDefaults.h"
#include "Support/Fakes.h"

#include "MorvanePlatform/Error.h"

#include <deque>
#include <gtest/gtest.h>
#include <unistd.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;

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

// A trash that refuses everything, as one on another volume would.
class RefusingTrash final : public Trash {
public:
    fs::path trashItem(const fs::path& item) override { throw PlatformError("Couldn't move " + item.string()); }
};

class HelperRemovalTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* dataHome = std::getenv("XDG_DATA_HOME");
        if (dataHome != nullptr) savedDataHome = dataHome;
        // Never the real trash: the freedesktop one is found through this variable first.
        ::setenv("XDG_DATA_HOME", (user.home() / ".local/share").c_str(), 1);
        files::createDirectories(bundlePath.parent_path());
        files::write(bundlePath, "helper");
        UserDefaults::current().setBool("seen", true);
    }
    void TearDown() override {
        if (savedDataHome)
            ::setenv("XDG_DATA_HOME", savedDataHome->c_str(), 1);
        else
            ::unsetenv("XDG_DATA_HOME");
        BackupLocator::removeAllStagedCopies();
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

    testing::TemporaryUser user;
    std::optional<std::string> savedDataHome;
    const fs::path bundlePath = user.home() / "Applications/MorvaneHelper";
    testing::Installed<testing::FakeBundle> bundle{bundlePath, std::string(helperBundleID)};
    testing::Installed<testing::RecordingWorkspace> workspace;
    testing::Installed<testing::RecordingToolLauncher> tools;
    testing::Installed<ScriptedShell> shell;
    std::shared_ptr<HelperModel> model = HelperModel::make(TimeMachineImports::forAppStoreEdition());
};

TEST_F(HelperRemovalTest, CancellingChangesNothing) {
    restorePoints(1);
    const auto staged = BackupLocator::stageData("data", "Calendar.sqlitedb");
    ASSERT_TRUE(fs::exists(preferences()));

    model->confirmRemove();

    ASSERT_EQ(shell->alerts.size(), 1u);
    const Alert& question = shell->alerts[0];
    EXPECT_EQ(question.message, "Remove the Time Machine Helper?");
    EXPECT_EQ(question.informativeText, "It moves to the Trash. Morvane keeps working with its own snapshots.");
    EXPECT_EQ(question.buttons, (std::vector<std::string>{"Remove Helper", "Cancel"}));
    EXPECT_TRUE(question.firstButtonDestructive);
    EXPECT_EQ(question.checkbox, "Also delete the 1 Time Machine restore point it brought into Morvane");

    EXPECT_TRUE(fs::exists(staged.file()));
    EXPECT_TRUE(fs::exists(bundlePath));
    EXPECT_TRUE(fs::exists(model->archive()->directory() / "index.json"));
    EXPECT_TRUE(fs::exists(preferences()));
    EXPECT_EQ(shell->windowsClosed, 0);
    EXPECT_FALSE(shell->exitStatus);
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

    const Alert& done = shell->alerts[1];
    EXPECT_EQ(done.message, "The Time Machine Helper was moved to the Trash");
    EXPECT_EQ(done.informativeText,
              "macOS keeps its entry under Full Disk Access until you remove it: in Privacy & Security → Full Disk "
              "Access, select Morvane Time Machine Helper and click −.");
    EXPECT_EQ(done.buttons, (std::vector<std::string>{"Open Privacy & Security", "Done"}));
    EXPECT_FALSE(done.checkbox);
    EXPECT_EQ(workspace->openedURLs(), (std::vector<std::string>{privacySettingsURL}));
    EXPECT_TRUE(workspace->revealed().empty());

    EXPECT_FALSE(fs::exists(preferences()));
    EXPECT_EQ(shell->windowsClosed, 1);
    EXPECT_EQ(shell->exitStatus, 0);
}

TEST_F(HelperRemovalTest, ConfirmingWithoutTheCheckboxKeepsTheRestorePoints) {
    restorePoints(2);
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
