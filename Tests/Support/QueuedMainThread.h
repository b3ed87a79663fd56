#pragma once

#include "MorvanePlatform/MainThread.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace morvane::testing {

// A main thread without a window's event loop: the thread that makes this object is the main
// thread, and it runs the work handed over from background threads when the test pumps.
class QueuedMainThread final : public MainThread {
public:
    QueuedMainThread() = default;
    QueuedMainThread(const QueuedMainThread&) = delete;
    QueuedMainThread& operator=(const QueuedMainThread&) = delete;

    bool run(const std::function<void()>& work, std::stop_token stop) override;

    // On the main thread: runs handed-over work, in order, until `done` holds or `timeout` has
    // passed. Returns whether `done` holds.
    bool pumpUntil(const std::function<bool()>& done,
                   std::chrono::milliseconds timeout = std::chrono::milliseconds::max());

private:
    const std::thread::id owner_ = std::this_thread::get_id();
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<std::shared_ptr<HandedOverWork>> queue_; // guarded by lock_
};

} // namespace morvane::testing
