#include "MorvanePlatform/QueuedMainThread.h"

namespace morvane {

void QueuedMainThread::run(const std::function<void()>& work) {
    if (std::this_thread::get_id() == owner_) {
        work();
        return;
    }
    bool finished = false; // guarded by lock_
    std::function<void()> job = [&] {
        work();
        std::lock_guard guard(lock_);
        finished = true;
    };
    std::unique_lock guard(lock_);
    ++callers_;
    queue_.push_back(&job);
    changed_.notify_all();
    // The caller waits: background work sees its changes applied before it goes on.
    changed_.wait(guard, [&] { return finished; });
    --callers_;
    changed_.notify_all();
}

QueuedMainThread::~QueuedMainThread() {
    std::unique_lock guard(lock_);
    changed_.wait(guard, [this] { return callers_ == 0; });
}

bool QueuedMainThread::pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto start = std::chrono::steady_clock::now();
    const auto deadline =
        timeout == std::chrono::milliseconds::max() ? std::chrono::steady_clock::time_point::max() : start + timeout;
    for (;;) {
        if (done()) return true;
        std::function<void()>* job = nullptr;
        {
            std::unique_lock guard(lock_);
            if (!changed_.wait_until(guard, deadline, [this] { return !queue_.empty(); })) return done();
            job = queue_.front();
            queue_.pop_front();
        }
        (*job)();
        changed_.notify_all();
    }
}

} // namespace morvane
