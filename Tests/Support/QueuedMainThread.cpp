#include "Support/QueuedMainThread.h"

namespace morvane::testing {

bool QueuedMainThread::run(const std::function<void()>& work, std::stop_token stop) {
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

bool QueuedMainThread::pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto start = std::chrono::steady_clock::now();
    const auto deadline =
        timeout == std::chrono::milliseconds::max() ? std::chrono::steady_clock::time_point::max() : start + timeout;
    for (;;) {
        if (done()) return true;
        std::shared_ptr<HandedOverWork> next;
        {
            std::unique_lock guard(lock_);
            if (!changed_.wait_until(guard, deadline, [this] { return !queue_.empty(); })) return done();
            next = std::move(queue_.front());
            queue_.pop_front();
        }
        next->run();
    }
}

} // namespace morvane::testing
