#pragma once

#include "MorvanePlatform/MainThread.h"

#include <functional>

class QObject;

namespace morvane {

// The main thread of a Qt application: work from background threads runs on the GUI thread, in
// the order handed over, while its event loop runs, and the caller waits until it has run or its
// stop is requested. Before an application exists, work runs at once.
class QtMainThread final : public MainThread {
public:
    bool run(const std::function<void()>& work, std::stop_token stop) override;
};

// Runs `work` later on `context`'s thread, from its event loop; nothing runs if `context` is
// destroyed first. Call it on any thread.
void queueOnEventLoop(QObject* context, std::function<void()> work);

} // namespace morvane
