#include "MorvaneHelper/QtMainThread.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

namespace morvane {

void QtMainThread::run(const std::function<void()>& work) {
    QCoreApplication* application = QCoreApplication::instance();
    if (application == nullptr || QThread::currentThread() == application->thread()) {
        work();
        return;
    }
    QMetaObject::invokeMethod(
        application, [&work] { work(); }, Qt::BlockingQueuedConnection);
}

} // namespace morvane
