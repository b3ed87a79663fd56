// The window rendered with Qt's offscreen platform. Each state also leaves a screenshot in the
// build folder (screenshots/), which is where the README's pictures come from.
#include "MorvaneHelper/HelperView.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvaneHelper/HelperApplication.h"
#include "MorvaneHelper/QtMainThread.h"
#include "Support/Fakes.h"
#include "Support/FolderBackups.h"

#include <QApplication>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

// Qt's font database keeps fontconfig's configuration for the life of the process, and nothing
// ever frees it; that is not ours to report under the leak checker.
extern "C" __attribute__((used)) const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }

namespace morvane {
namespace {

namespace fs = std::filesystem;
using Phase = HelperModel::Phase;
using State = HelperViewModel::State;
using Buttons = std::vector<std::pair<std::string, bool>>;

void quietOffscreenPlatform(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    // The offscreen platform can't resize a window to its size hints, and says so each time.
    if (message.contains("propagateSizeHints")) return;
    std::fprintf(stderr, "%s\n", qFormatLogMessage(type, context, message).toLocal8Bit().constData());
}

QApplication& application() {
    // No display is needed, or used, by the tests.
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    qInstallMessageHandler(quietOffscreenPlatform);
    static int argc = 1;
    static char name[] = "MorvaneHelperTests";
    static char* argv[] = {name, nullptr};
    static auto* app = new QApplication(argc, argv);
    return *app;
}

class HelperWindowTest : public ::testing::Test {
protected:
    void TearDown() override { BackupLocator::removeAllStagedCopies(); }

    // The texts and buttons the user sees now, in the order of the widget tree.
    std::vector<std::string> texts() const {
        std::vector<std::string> shown;
        for (const auto* label : view->findChildren<QLabel*>()) {
            if (label->isVisibleTo(view.get()) && !label->text().isEmpty())
                shown.push_back(label->text().toStdString());
        }
        return shown;
    }
    static std::string title(const QPushButton* button) { return button->text().replace("&&", "&").toStdString(); }
    Buttons buttons() const {
        Buttons shown;
        for (const auto* button : view->findChildren<QPushButton*>()) {
            if (button->isVisibleTo(view.get())) shown.emplace_back(title(button), button->isEnabled());
        }
        return shown;
    }
    QPushButton* button(const std::string& title) const {
        for (auto* candidate : view->findChildren<QPushButton*>()) {
            if (candidate->isVisibleTo(view.get()) && this->title(candidate) == title) return candidate;
        }
        return nullptr;
    }
    int checkedSteps() const {
        int count = 0;
        for (const auto* badge : view->findChildren<QLabel*>("doneBadge"))
            count += badge->isVisibleTo(view.get()) ? 1 : 0;
        return count;
    }
    bool shows(const std::string& text) const {
        const auto all = texts();
        return std::find(all.begin(), all.end(), text) != all.end();
    }

    void render(const State& state) {
        view->render(HelperViewModel::of(state));
        settle();
    }
    void settle() {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
        view->adjustSize();
    }
    void screenshot(const std::string& name) {
        settle();
        fs::create_directories(MORVANE_SCREENSHOT_DIR);
        const auto path = fs::path(MORVANE_SCREENSHOT_DIR) / (name + ".png");
        ASSERT_TRUE(view->grab().save(QString::fromStdString(path.string()))) << path;
    }
    bool waitFor(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        }
        settle();
        return true;
    }

    QApplication& app = application();
    testing::TemporaryUser user;
    testing::Installed<testing::RecordingToolLauncher> tools;
    testing::Installed<testing::RecordingWorkspace> workspace;
    testing::Installed<testing::RecordingSystemLog> log;
    testing::Installed<QtMainThread> mainThread;
    std::shared_ptr<HelperModel> model = HelperModel::make(TimeMachineImports::forAppStoreEdition());
    std::unique_ptr<HelperView> view = std::make_unique<HelperView>(model);
};

// 2024-03-01 10:15 in the pinned zone, and the days after.
BackupSource backupOfMarch(int day) {
    return {BackupSource::Kind::timeMachine("/Volumes/Backup/Backups.backupdb/Mac/" + std::to_string(day)),
            Date::fromSecondsSince1970(1709316900.0 + (day - 1) * 86400.0)};
}

TEST_F(HelperWindowTest, MainStates) {
    render(State{});
    screenshot("no-permissions");
    EXPECT_TRUE(shows("Install Morvane from the Mac App Store and open it, then come back here."));
    EXPECT_EQ(buttons(), (Buttons{{"Open Privacy & Security…", true}, {"Remove Helper…", true}}));
    EXPECT_EQ(checkedSteps(), 0);

    const State permitted{.hasFullDiskAccess = true, .appStoreEditionOpened = true};
    auto state = permitted;
    state.phase = Phase::scanning();
    render(state);
    screenshot("scanning");
    EXPECT_TRUE(shows("Looking for Time Machine backups…"));
    EXPECT_EQ(buttons(), (Buttons{{"Remove Helper…", false}}));
    EXPECT_EQ(checkedSteps(), 2);

    state.phase = Phase::importing(1, 5, "Mar 2, 2024, 10:15\u202FAM");
    render(state);
    screenshot("importing");
    EXPECT_TRUE(shows("Copying backup 2 of 5"));
    EXPECT_TRUE(shows("Mar 2, 2024, 10:15\u202FAM"));
    const auto bars = view->findChildren<QProgressBar*>();
    ASSERT_FALSE(bars.empty());
    EXPECT_EQ(bars.back()->value(), 1);
    EXPECT_EQ(bars.back()->maximum(), 5);

    state = permitted;
    state.phase = Phase::finished(2, 5, 3);
    state.imported = 6;
    state.pending = {backupOfMarch(3), backupOfMarch(4), backupOfMarch(5)};
    render(state);
    screenshot("finished-with-failures");
    EXPECT_TRUE(shows("Done. Added 2 restore points."));
    EXPECT_EQ(buttons(), (Buttons{{"Import Backups", true}, {"Open Morvane", true}, {"Remove Helper…", true}}));
    EXPECT_EQ(checkedSteps(), 3);

    render(permitted);
    screenshot("nothing-found");
    EXPECT_EQ(buttons(), (Buttons{{"Remove Helper…", true}}));
    EXPECT_EQ(checkedSteps(), 2);

    state = permitted;
    state.imported = 14;
    render(state);
    screenshot("restore-points");
    EXPECT_EQ(checkedSteps(), 3);
}

TEST_F(HelperWindowTest, WalksThroughTheStepsAndImportsFolderBackups) {
    // Different content each day, so that each becomes a restore point of its own.
    testing::folderBackups(*tools, user.root().path() / "Backups.backupdb", BackupLocator::relativeDBPath,
                           {{"2024-03-01-101500", 1}, {"2024-03-02-101500", 2}});

    view->show();
    ASSERT_TRUE(waitFor([&] { return !model->phase().isBusy(); }));
    EXPECT_EQ(checkedSteps(), 0);
    EXPECT_TRUE(shows("Install Morvane from the Mac App Store and open it, then come back here."));

    // The user opens the App Store edition and grants access, then comes back to the helper.
    fs::create_directories(TimeMachineImports::appStoreContainer());
    fs::create_directories(fs::path(BackupLocator::liveDBPath()).parent_path());
    view->hide();
    view->show();
    ASSERT_TRUE(waitFor([&] { return !model->phase().isBusy() && button("Import Backups") != nullptr; }));
    EXPECT_EQ(checkedSteps(), 2);
    EXPECT_TRUE(shows("Found 2 backups to copy (one per day), March 1, 2024 to March 2, 2024. This can take a few "
                      "minutes."));

    button("Import Backups")->click();
    ASSERT_TRUE(waitFor([&] {
        return model->phase().which == Phase::Case::finished && button("Open Morvane") != nullptr &&
               button("Remove Helper…")->isEnabled();
    }));
    EXPECT_EQ(checkedSteps(), 3);
    EXPECT_TRUE(shows("Done. Added 2 restore points."));
    EXPECT_EQ(button("Import Backups"), nullptr);
    EXPECT_EQ(model->archive()->entries().size(), 2u);
    screenshot("imported");

    button("Open Morvane")->click();
    ASSERT_TRUE(waitFor([&] { return !workspace->openedApplications().empty(); }));
    EXPECT_EQ(workspace->openedApplications(),
              (std::vector<std::string>{std::string(TimeMachineImports::appBundleID)}));
}

TEST_F(HelperWindowTest, ATerminationSignalQuitsAndSweepsWhatAnImportLeftOpen) {
    HelperDelegate delegate;
    const auto staged = BackupLocator::stageData("data", "Calendar.sqlitedb");
    QTimer::singleShot(0, [] { std::raise(SIGTERM); });
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_FALSE(fs::exists(staged.file()));
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
}

} // namespace
} // namespace morvane
