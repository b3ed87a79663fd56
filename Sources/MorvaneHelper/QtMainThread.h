#pragma once

#include "MorvanePlatform/MainThread.h"

namespace morvane {

// The main thread of a Qt application: work from background threads runs on the GUI thread, in
// the order handed over, and the caller waits until it has run. Once the event loop has ended
// nothing runs any more and callers wait for the end of the process; before an application
// exists, work runs at once.
class QtMainThread final : public MainThread {
public:
    void run(const std::function<void()>& work) override;
};

} // namespace morvane
