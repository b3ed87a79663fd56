#include "MorvaneHelper/QtMainThread.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

namespace morvane {

bool QtMainThread::run(const std::function<void()>& work, std::stop_token stop) {
    QCoreApplication* application = QCoreApplication::instance();
    if (application == nullptr || QThread::currentThread() == application->thread()) {
        work();
        return true;
    }
    // The event owns its share of the hand-over: it may be delivered, or destroyed with the
    // application, after the caller gave up.
    const auto handedOver = std::make_shared<HandedOverWork>(work);
    queueOnEventLoop(application, [handedOver] { handedOver->run(); });
    return handedOver->wait(stop);
}

void queueOnEventLoop(QObject* context, std::function<void()> work) {
    // Qt owns the slot object it makes here and deletes it with the event. The static analyzer
    // can't follow it through the queue and reports a leak inside Qt's header, where no NOLINT
    // reaches; this one call is kept from it, for every caller.
#ifndef __clang_analyzer__
    QMetaObject::invokeMethod(context, std::move(work), Qt::QueuedConnection);
#else
    static_cast<void>(context);
    static_cast<void>(work);
#endif
}

} // namespace morvane
