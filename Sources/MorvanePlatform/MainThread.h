#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>

namespace morvane {

// The thread of the window and its event loop. Background work hands each change of state to
// it, in order, and waits until it has run.
//
// Threads: `run` on any thread, concurrently.
class MainThread : public Replaceable<MainThread> {
public:
    virtual ~MainThread() = default;

    // Runs `work` on the main thread and returns true once it has run; called on the main thread
    // itself, runs it at once. Once `stop` is requested, work that hasn't started is dropped and
    // the call returns false: an owner that stops and joins its background thread from the main
    // thread never waits for a caller that waits for the main thread.
    virtual bool run(const std::function<void()>& work, std::stop_token stop) = 0;

    // The real implementation belongs to the program's event loop, which installs it; without
    // one, work runs on the calling thread.
    static MainThread& system();
};

// For implementations: one piece of work on its way from a background thread to the main
// thread. The background thread makes it, hands it over and waits; the main thread runs it,
// unless the caller gave up first, in which case it doesn't touch the work at all.
class HandedOverWork {
public:
    explicit HandedOverWork(const std::function<void()>& work) : work_(work) {}
    HandedOverWork(const HandedOverWork&) = delete;
    HandedOverWork& operator=(const HandedOverWork&) = delete;

    // On the main thread.
    void run();
    // On the thread that handed the work over: returns true once it has run, false when `stop`
    // was requested before it started. Work already running is waited for, since it borrows the
    // caller's function.
    bool wait(std::stop_token stop);

private:
    enum class State { waiting, running, done, dropped };

    const std::function<void()>& work_; // the caller's, valid until it returns from wait
    std::mutex lock_;
    std::condition_variable_any changed_;
    State state_ = State::waiting; // guarded by lock_
};

} // namespace morvane
