#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXMainQueue.h>

#include <QObject>
#include <QPointer>

/// The library's main queue on the Qt event loop: work posted from any thread runs on the thread
/// of the application object, so a Qt application needs no loop of its own for the library.
/// Work still queued when the queue is destroyed is dropped.
class KX_EXPORT KXQtMainQueue final : public KXMainQueue {
public:
    /// Needs a QCoreApplication (or QApplication) already made, on the main thread.
    KXQtMainQueue();
    ~KXQtMainQueue() override;

    void post(std::function<void()> work) override;
    void postAfter(std::chrono::milliseconds delay, std::function<void()> work) override;
    bool isMainThread() const override;

private:
    // Receives the queued calls; deleting it drops what is still queued.
    QPointer<QObject> context_;
};
