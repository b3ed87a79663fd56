#pragma once

#include "MorvaneHelper/HelperShell.h"

namespace morvane {

// The helper's alerts as Qt message boxes, over the active window.
class QtHelperShell final : public HelperShell {
public:
    AlertAnswer runAlert(const Alert& alert) override;
    void closeAllWindows() override;
    void exit(int status) override;
};

// What the application does at its edges: the window is its only one, so closing it quits,
// also during an import; quitting, however it comes (the window, the menu, SIGINT or SIGTERM),
// first takes away the mounts and then the staged copies a running import left behind.
// Create it on the main thread once the QApplication exists.
class HelperDelegate {
public:
    HelperDelegate();
    ~HelperDelegate();
    HelperDelegate(const HelperDelegate&) = delete;
    HelperDelegate& operator=(const HelperDelegate&) = delete;

    static void applicationWillTerminate();

private:
    int signalPipe_[2] = {-1, -1};
};

// The helper's application: sets up the platform's services for a window program, shows the
// one window "Morvane Time Machine Helper" over a new model, and runs until it quits. Then it
// stops the model's background work, waits for it, sweeps again what it may have held, and
// returns the exit status for `main` to return.
class TimeMachineHelperApp {
public:
    static int run(int argc, char** argv);
};

} // namespace morvane
