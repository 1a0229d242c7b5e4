#include "dispatch/QtQueues.h"

#include <QMetaObject>
#include <QTimer>
#include <cmath>

namespace lumerix {

QtEventQueue::QtEventQueue(std::string label, QObject* context, std::shared_ptr<Clock> clock)
    : DispatchQueue(std::move(label)), context_(context), clock_(std::move(clock)) {
    if (context_ && context_->thread() == QThread::currentThread()) setThreadDefault(this);
}

bool QtEventQueue::isCurrent() const { return context_ && QThread::currentThread() == context_->thread(); }

void QtEventQueue::async(Task task) {
    QMetaObject::invokeMethod(
        context_,
        [this, task = std::move(task)] {
            CurrentScope scope(this);
            task();
        },
        Qt::QueuedConnection);
}

TaskHandle QtEventQueue::after(double delayMs, Task task) {
    auto handle = std::make_shared<Cancelable>();
    const int ms = delayMs > 0 ? static_cast<int>(std::lround(delayMs)) : 0;
    // The timer must be created on the context's thread.
    QMetaObject::invokeMethod(
        context_,
        [this, ms, handle, task = std::move(task)]() mutable {
            if (handle->isCancelled()) return;
            QTimer::singleShot(ms, Qt::PreciseTimer, context_, [this, handle, task = std::move(task)] {
                if (handle->isCancelled()) return;
                CurrentScope scope(this);
                task();
            });
        },
        Qt::QueuedConnection);
    return handle;
}

QObject* QtEventLoopThreadQueue::makeContext(QThread* thread) {
    auto* ctx = new QObject;
    ctx->moveToThread(thread);
    return ctx;
}

QtEventLoopThreadQueue::QtEventLoopThreadQueue(std::string label, std::shared_ptr<Clock> clock)
    : QtEventLoopThreadQueue(new QThread, std::move(label), std::move(clock)) {}

QtEventLoopThreadQueue::QtEventLoopThreadQueue(QThread* thread, std::string label,
                                               std::shared_ptr<Clock> clock)
    : QtEventQueue(std::move(label), makeContext(thread), std::move(clock)), thread_(thread) {
    thread_->setObjectName(QString::fromStdString(this->label()));
    thread_->start();
}

QtEventLoopThreadQueue::~QtEventLoopThreadQueue() {
    thread_->quit();
    thread_->wait();
    delete context();  // its thread's loop has stopped, so it is deleted from here
    delete thread_;
}

}  // namespace lumerix
