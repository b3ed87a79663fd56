#include "MorvanePlatform/MainThread.h"

namespace morvane {
namespace {

// A program without an event loop (the command line) has no main thread to hop to.
class CallingThread final : public MainThread {
public:
    void run(const std::function<void()>& work) override { work(); }
};

} // namespace

MainThread& MainThread::system() {
    static CallingThread thread;
    return thread;
}

} // namespace morvane
