#include "MorvanePlatform/MainThread.h"

namespace morvane {
namespace {

// A program without an event loop has no main thread to hop to.
class CallingThread final : public MainThread {
public:
    bool run(const std::function<void()>& work, std::stop_token) override {
        work();
        return true;
    }
};

} // namespace

MainThread& MainThread::system() {
    static CallingThread thread;
    return thread;
}

void HandedOverWork::run() {
    {
        std::lock_guard guard(lock_);
        if (state_ == State::dropped) return;
        state_ = State::running;
    }
    // Done even when the work throws, so that its caller never waits for ever.
    struct Finish {
        HandedOverWork& work;
        ~Finish() {
            {
                std::lock_guard guard(work.lock_);
                work.state_ = State::done;
            }
            work.changed_.notify_all();
        }
    } finish{*this};
    work_();
}

bool HandedOverWork::wait(std::stop_token stop) {
    std::unique_lock guard(lock_);
    changed_.wait(guard, stop, [this] { return state_ == State::done; });
    if (state_ == State::waiting) {
        state_ = State::dropped;
        return false;
    }
    changed_.wait(guard, [this] { return state_ == State::done; });
    return true;
}

} // namespace morvane
