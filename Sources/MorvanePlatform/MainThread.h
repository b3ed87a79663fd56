#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <functional>

namespace morvane {

// The thread of the window and its event loop. Background work hands each change of state to
// it, in order, and waits until it has run.
class MainThread : public Replaceable<MainThread> {
public:
    virtual ~MainThread() = default;

    // Runs `work` on the main thread and returns once it has run; called on the main thread
    // itself, runs it at once.
    virtual void run(const std::function<void()>& work) = 0;

    // The real implementation belongs to the program's event loop, which installs it; without
    // one, work runs on the calling thread.
    static MainThread& system();
};

} // namespace morvane
