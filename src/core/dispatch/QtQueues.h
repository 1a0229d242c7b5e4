#pragma once
// Queues backed by Qt event loops: the main thread's (QtEventQueue) and a thread of its own running
// a Qt event loop (QtEventLoopThreadQueue), which D-Bus code needs. ThreadQueue, by contrast, runs
// its own task list and has no event loop.
#include <QObject>
#include <QThread>

#include "dispatch/DispatchQueue.h"

namespace lumerix {

// Posts into the event loop of the thread that owns `context`.
class QtEventQueue : public DispatchQueue {
public:
    // Declares itself the default queue of the context's thread when constructed on it.
    QtEventQueue(std::string label, QObject* context, std::shared_ptr<Clock> clock = systemClock());

    void async(Task task) override;
    TaskHandle after(double delayMs, Task task) override;
    const Clock& clock() const override { return *clock_; }
    bool isCurrent() const override;
    QObject* context() const { return context_; }

private:
    QObject* context_;
    std::shared_ptr<Clock> clock_;
};

// Owns a QThread running an event loop; stopped and joined on destruction.
class QtEventLoopThreadQueue final : public QtEventQueue {
public:
    explicit QtEventLoopThreadQueue(std::string label, std::shared_ptr<Clock> clock = systemClock());
    ~QtEventLoopThreadQueue() override;

private:
    QtEventLoopThreadQueue(QThread* thread, std::string label, std::shared_ptr<Clock> clock);
    static QObject* makeContext(QThread* thread);
    QThread* thread_;
};

}  // namespace lumerix
