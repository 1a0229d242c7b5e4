#include "dispatch/ManualQueue.h"

namespace lumerix {

VirtualTime::VirtualTime(double startWallMs) : startWall_(startWallMs) {}

double VirtualTime::nowMs() const {
    std::lock_guard lock(mutex_);
    return startWall_ + elapsed_;
}

double VirtualTime::monotonicMs() const {
    std::lock_guard lock(mutex_);
    return elapsed_;
}

size_t VirtualTime::pendingCount() const {
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

TaskHandle VirtualTime::post(ManualQueue* queue, double delayMs, DispatchQueue::Task task) {
    auto handle = std::make_shared<Cancelable>();
    std::lock_guard lock(mutex_);
    tasks_.push(Entry{elapsed_ + (delayMs > 0 ? delayMs : 0), seq_++, queue, handle, std::move(task)});
    return handle;
}

void VirtualTime::forget(ManualQueue* queue) {
    std::lock_guard lock(mutex_);
    std::vector<Entry> keep;
    while (!tasks_.empty()) {
        if (tasks_.top().queue != queue) keep.push_back(tasks_.top());
        tasks_.pop();
    }
    for (auto& e : keep) tasks_.push(std::move(e));
}

bool VirtualTime::runOneDueBy(double limit) {
    Entry entry;
    {
        std::lock_guard lock(mutex_);
        if (tasks_.empty() || tasks_.top().due > limit) return false;
        entry = tasks_.top();
        tasks_.pop();
        if (entry.due > elapsed_) elapsed_ = entry.due;
    }
    if (!entry.handle->isCancelled()) entry.queue->run(entry.task);
    return true;
}

void VirtualTime::advance(double ms) {
    double target;
    {
        std::lock_guard lock(mutex_);
        target = elapsed_ + (ms > 0 ? ms : 0);
    }
    while (runOneDueBy(target)) {
    }
    std::lock_guard lock(mutex_);
    if (target > elapsed_) elapsed_ = target;
}

void VirtualTime::runUntilIdle() {
    double now;
    {
        std::lock_guard lock(mutex_);
        now = elapsed_;
    }
    while (runOneDueBy(now)) {
    }
}

ManualQueue::ManualQueue(VirtualTime& time, std::string label) : DispatchQueue(std::move(label)), time_(time) {}
ManualQueue::~ManualQueue() { time_.forget(this); }

void ManualQueue::async(Task task) { time_.post(this, 0, std::move(task)); }
TaskHandle ManualQueue::after(double delayMs, Task task) { return time_.post(this, delayMs, std::move(task)); }

void ManualQueue::run(const Task& task) {
    CurrentScope scope(this);
    task();
}

}  // namespace lumerix
