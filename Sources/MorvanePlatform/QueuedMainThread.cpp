#include "MorvanePlatform/QueuedMainThread.h"

#include <memory>

namespace morvane {

void QueuedMainThread::run(const std::function<void()>& work) {
    if (std::this_thread::get_id() == owner_) {
        work();
        return;
    }
    // The caller waits on a handshake of its own, not on this object: once the main thread has
    // run the last job it may stop pumping and destroy this object before the caller wakes.
    struct Handshake {
        std::mutex lock;
        std::condition_variable done;
        bool finished = false; // guarded by lock
    };
    const auto handshake = std::make_shared<Handshake>();
    std::function<void()> job = [&work, handshake] {
        work();
        std::lock_guard guard(handshake->lock);
        handshake->finished = true;
        handshake->done.notify_all();
    };
    {
        std::lock_guard guard(lock_);
        queue_.push_back(&job);
    }
    changed_.notify_all();
    // The caller waits: background work sees its changes applied before it goes on.
    std::unique_lock guard(handshake->lock);
    handshake->done.wait(guard, [&] { return handshake->finished; });
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
    }
}

} // namespace morvane
