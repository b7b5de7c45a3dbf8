#include "KXQtMainQueue.h"

#include <KXClientFramework/KXException.h>

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

KXQtMainQueue::KXQtMainQueue() {
    QCoreApplication* application = QCoreApplication::instance();
    if (application == nullptr) {
        throw KXException("KXQtMainQueue", "a QApplication must exist before the Qt main queue");
    }
    context_ = new QObject();
    context_->moveToThread(application->thread());
}

KXQtMainQueue::~KXQtMainQueue() {
    if (context_) {
        if (isMainThread()) {
            delete context_.data();
        } else {
            context_->deleteLater();
        }
    }
}

void KXQtMainQueue::post(std::function<void()> work) {
    QObject* context = context_.data();
    if (context == nullptr || !work) {
        return;
    }
    // A queued call never runs inline, even when posted from the main thread.
    QMetaObject::invokeMethod(
        context, [work = std::move(work)] { work(); }, Qt::QueuedConnection);
}

void KXQtMainQueue::postAfter(std::chrono::milliseconds delay, std::function<void()> work) {
    QPointer<QObject> context = context_;
    // Timers belong to the thread that starts them, so the timer is started on the main thread.
    post([context, delay, work = std::move(work)]() mutable {
        if (context) {
            QTimer::singleShot(delay, context.data(), std::move(work));
        }
    });
}

bool KXQtMainQueue::isMainThread() const {
    QCoreApplication* application = QCoreApplication::instance();
    return application != nullptr && QThread::currentThread() == application->thread();
}
