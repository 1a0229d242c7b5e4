#pragma once
// A serial task runner with one-shot delayed tasks. Production queues are threads (ThreadQueue,
// QtEventLoopThreadQueue) or the Qt main event loop (QtEventQueue); tests use ManualQueue on virtual time.
#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "dispatch/Clock.h"

namespace lumerix {

// Handle of a queued task; cancelling stops a task that has not started yet, even one already due.
class Cancelable {
public:
    void cancel() { cancelled_.store(true, std::memory_order_release); }
    bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }

private:
    std::atomic<bool> cancelled_{false};
};
using TaskHandle = std::shared_ptr<Cancelable>;

class DispatchQueue {
public:
    using Task = std::function<void()>;

    explicit DispatchQueue(std::string label) : label_(std::move(label)) {}
    virtual ~DispatchQueue() = default;
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    virtual void async(Task task) = 0;
    // Runs the task once, delayMs from now, unless the returned handle is cancelled first.
    virtual TaskHandle after(double delayMs, Task task) = 0;
    // The clock this queue's delays are measured on.
    virtual const Clock& clock() const = 0;
    // True when the calling code runs on this queue.
    virtual bool isCurrent() const { return current() == this; }
    // Runs the task on the queue and waits for it. Only for queues whose tasks run on a thread of
    // their own, and never from that thread.
    void sync(const Task& task);

    const std::string& label() const { return label_; }

    // The queue whose task runs on this thread, else the thread's default queue, else null.
    static DispatchQueue* current();
    // Declares the queue that owns the calling thread outside of tasks (the main thread's queue).
    static void setThreadDefault(DispatchQueue* queue);

protected:
    // Marks the queue as current while a task runs.
    class CurrentScope {
    public:
        explicit CurrentScope(DispatchQueue* q);
        ~CurrentScope();

    private:
        DispatchQueue* previous_;
    };

private:
    std::string label_;
};

}  // namespace lumerix
