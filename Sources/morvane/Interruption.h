#pragma once

#include <thread>

namespace morvane::cli {

// Ends the program cleanly on SIGINT, SIGTERM and SIGHUP, as the helper does on quitting: the
// snapshots it mounted are released, then its staged copies and the temporary files of writes
// under way are removed, and the process exits with 128 + the signal. A signal handler may do
// no such work itself: it writes the signal's number to a pipe, and a thread of this object's
// own, waiting on the pipe, does the work. One per process, for the life of `main`; the thread is
// stopped and joined when the object goes, unless a signal came first and it is ending the
// process.
class InterruptionCleanup {
public:
    InterruptionCleanup();
    ~InterruptionCleanup();
    InterruptionCleanup(const InterruptionCleanup&) = delete;
    InterruptionCleanup& operator=(const InterruptionCleanup&) = delete;

private:
    int pipe_[2] = {-1, -1};
    std::thread watcher_;
};

} // namespace morvane::cli
