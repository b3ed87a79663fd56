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
    QMetaObject::invokeMethod(
        application, [handedOver] { handedOver->run(); }, Qt::QueuedConnection);
    return handedOver->wait(stop);
}

} // namespace morvane
