#include "MorvaneHelper/SerialWorker.h"

namespace morvane {

SerialWorker::SerialWorker() : thread_([this](std::stop_token stop) { loop(stop); }) {}

SerialWorker::~SerialWorker() { stop(); }

void SerialWorker::post(Task task) {
    {
        std::lock_guard guard(lock_);
        if (thread_.get_stop_token().stop_requested()) return;
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

void SerialWorker::stop() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
    std::lock_guard guard(lock_);
    tasks_.clear();
}

void SerialWorker::loop(std::stop_token stop) {
    for (;;) {
        Task task;
        {
            std::unique_lock guard(lock_);
            wake_.wait(guard, stop, [this] { return !tasks_.empty(); });
            if (stop.stop_requested()) return;
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task(stop);
    }
}

} // namespace morvane
