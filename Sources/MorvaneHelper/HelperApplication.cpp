#include "MorvaneHelper/HelperApplication.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Backups/SnapshotMount.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvaneHelper/HelperModel.h"
#include "MorvaneHelper/HelperView.h"
#include "MorvaneHelper/QtMainThread.h"
#include "MorvanePlatform/Bundle.h"

#include <QApplication>
#include <QCheckBox>
#include <QLayout>
#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QSocketNotifier>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace morvane {
namespace {

// The write end of the delegate's pipe: a signal handler may only write to it.
volatile std::sig_atomic_t signalWriteEnd = -1;

void forwardSignal(int) {
    const char byte = 1;
    if (signalWriteEnd >= 0) (void)::write(signalWriteEnd, &byte, 1);
}

} // namespace

AlertAnswer QtHelperShell::runAlert(const Alert& alert) {
    QMessageBox box(QApplication::activeWindow());
    box.setWindowTitle(QString());
    box.setIconPixmap(QApplication::windowIcon().pixmap(64, 64));
    box.setText(QString::fromStdString(alert.message));
    box.setInformativeText(QString::fromStdString(alert.informativeText));
    std::vector<QPushButton*> buttons;
    for (size_t index = 0; index < alert.buttons.size(); ++index) {
        const auto role = index == 0
                              ? (alert.firstButtonDestructive ? QMessageBox::DestructiveRole : QMessageBox::AcceptRole)
                              : QMessageBox::RejectRole;
        buttons.push_back(box.addButton(QString::fromStdString(alert.buttons[index]).replace("&", "&&"), role));
    }
    if (!buttons.empty()) {
        box.setDefaultButton(buttons.front());
        box.setEscapeButton(buttons.back());
    }
    if (alert.checkbox) box.setCheckBox(new QCheckBox(QString::fromStdString(*alert.checkbox).replace("&", "&&")));
    box.exec();

    AlertAnswer answer{.button = static_cast<int>(buttons.size()) - 1};
    for (size_t index = 0; index < buttons.size(); ++index) {
        if (box.clickedButton() == buttons[index]) answer.button = static_cast<int>(index);
    }
    answer.checkboxOn = box.checkBox() != nullptr && box.checkBox()->isChecked();
    return answer;
}

void QtHelperShell::closeAllWindows() {
    for (QWidget* window : QApplication::topLevelWidgets()) {
        if (window->isVisible()) window->close();
    }
}

void QtHelperShell::exit(int status) { QCoreApplication::exit(status); }

HelperDelegate::HelperDelegate() {
    QApplication::setQuitOnLastWindowClosed(true);
    QObject::connect(qApp, &QCoreApplication::aboutToQuit, &HelperDelegate::applicationWillTerminate);

    // Signals end the event loop like any other quit, so the same clean-up runs.
    if (::pipe2(signalPipe_, O_CLOEXEC | O_NONBLOCK) != 0) return;
    signalWriteEnd = signalPipe_[1];
    auto* notifier = new QSocketNotifier(signalPipe_[0], QSocketNotifier::Read, qApp);
    QObject::connect(notifier, &QSocketNotifier::activated, qApp, [fd = signalPipe_[0]] {
        char bytes[16];
        while (::read(fd, bytes, sizeof bytes) > 0) {
        }
        QCoreApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

HelperDelegate::~HelperDelegate() {
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    signalWriteEnd = -1;
    for (const int fd : signalPipe_) {
        if (fd >= 0) ::close(fd);
    }
}

void HelperDelegate::applicationWillTerminate() {
    SnapshotMount::unmountAll();
    BackupLocator::removeAllStagedCopies();
}

int TimeMachineHelperApp::run(int argc, char** argv) {
    Bundle::declareIdentifier(helperBundleID);
    QApplication application(argc, argv);
    QApplication::setApplicationName("Morvane Time Machine Helper");
    QApplication::setDesktopFileName(helperBundleID);
    QApplication::setWindowIcon(helperIcon());

    QtMainThread mainThread;
    ScopedReplacement<MainThread> installedMainThread(mainThread);
    QtHelperShell shell;
    ScopedReplacement<HelperShell> installedShell(shell);
    HelperDelegate delegate;

    const auto model = HelperModel::make(TimeMachineImports::forAppStoreEdition());
    QMainWindow window;
    window.setObjectName("main");
    window.setWindowTitle(HelperViewModel::windowTitle);
    window.setCentralWidget(new HelperView(model));
    window.layout()->setSizeConstraint(QLayout::SetFixedSize);
    auto* menu = window.menuBar()->addMenu("File");
    menu->addAction("Quit Morvane Time Machine Helper", QKeySequence::Quit, qApp, &QCoreApplication::quit);

    // Coming back to the helper is how a permission granted elsewhere shows up.
    QObject::connect(&application, &QGuiApplication::applicationStateChanged, &window,
                     [model](Qt::ApplicationState state) {
                         if (state == Qt::ApplicationActive) model->refresh();
                     });
    window.show();
    const int status = QApplication::exec();

    // The delegate swept as the loop ended; a run still going stops before its next backup, and
    // whatever it took for the backup in hand goes with it. Then nothing runs but this thread.
    model->quit();
    HelperDelegate::applicationWillTerminate();
    return status;
}

} // namespace morvane
