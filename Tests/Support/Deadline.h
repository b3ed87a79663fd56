#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace morvane::testing {

// Ends the test process with a message when the scope isn't left within `limit`, so that a test
// of something that could block for ever (reading a named pipe, waiting for a child) fails
// instead of holding up the whole run.
class Deadline {
public:
    Deadline(std::chrono::seconds limit, std::string what)
        : watcher_([this, limit, what = std::move(what)] {
              std::unique_lock guard(lock_);
              if (!finished_.wait_for(guard, limit, [this] { return done_; })) {
                  std::fprintf(stderr, "%s didn't end within %lld s\n", what.c_str(),
                               static_cast<long long>(limit.count()));
                  std::abort();
              }
          }) {}
    ~Deadline() {
        {
            std::lock_guard guard(lock_);
            done_ = true;
        }
        finished_.notify_one();
        watcher_.join();
    }
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

private:
    std::mutex lock_;
    std::condition_variable finished_;
    bool done_ = false; // guarded by lock_
    std::thread watcher_;
};

} // namespace morvane::testing
