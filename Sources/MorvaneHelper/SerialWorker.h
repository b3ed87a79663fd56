#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>

namespace morvane {

// One background thread of its owner's that runs tasks one after the other, in the order posted.
// Each task gets the worker's stop token and should end soon once it is requested.
//
// `post` may be called from any thread, tasks included; `stop` and the destructor only from
// outside the tasks, since they wait for the thread to end.
class SerialWorker {
public:
    using Task = std::function<void(std::stop_token)>;

    SerialWorker();
    // Stops, as `stop` does.
    ~SerialWorker();
    SerialWorker(const SerialWorker&) = delete;
    SerialWorker& operator=(const SerialWorker&) = delete;

    // Queues `task`; after `stop` it is dropped.
    void post(Task task);

    // Asks the running task to stop, drops the tasks that haven't started, and waits until the
    // thread has ended. Harmless when called again.
    void stop();

private:
    void loop(std::stop_token stop);

    std::mutex lock_;
    std::condition_variable_any wake_;
    std::deque<Task> tasks_; // guarded by lock_
    // Last, so that it starts once the fields above exist and ends before they go.
    std::jthread thread_;
};

} // namespace morvane
