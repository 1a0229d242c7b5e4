#include "dispatch/ManualQueue.h"

#include <algorithm>

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

template <typename Pred>
std::vector<VirtualTime::Entry> VirtualTime::removeIfLocked(Pred drop) {
    std::vector<Entry> keep;
    std::vector<Entry> dropped;
    keep.reserve(tasks_.size());
    for (auto& e : tasks_) (drop(e) ? dropped : keep).push_back(std::move(e));
    tasks_ = std::move(keep);
    std::make_heap(tasks_.begin(), tasks_.end(), Later{});
    return dropped;
}

TaskHandle VirtualTime::post(ManualQueue* queue, double delayMs, DispatchQueue::Task task) {
    auto handle = std::make_shared<Cancelable>();
    std::vector<Entry> swept;  // destroyed after the lock is released
    std::lock_guard lock(mutex_);
    if (tasks_.size() >= sweepAt_) {
        swept = removeIfLocked([](const Entry& e) { return e.handle->isCancelled(); });
        sweepAt_ = std::max(kMinSweep, tasks_.size() * 2);
    }
    tasks_.push_back(Entry{elapsed_ + (delayMs > 0 ? delayMs : 0), seq_++, queue, handle, std::move(task)});
    std::push_heap(tasks_.begin(), tasks_.end(), Later{});
    return handle;
}

void VirtualTime::forget(ManualQueue* queue) {
    std::vector<Entry> dropped;
    std::lock_guard lock(mutex_);
    dropped = removeIfLocked([queue](const Entry& e) { return e.queue == queue; });
}

bool VirtualTime::runOneDueBy(double limit) {
    Entry entry;
    {
        std::lock_guard lock(mutex_);
        if (tasks_.empty() || tasks_.front().due > limit) return false;
        std::pop_heap(tasks_.begin(), tasks_.end(), Later{});
        entry = std::move(tasks_.back());
        tasks_.pop_back();
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

ManualQueue::ManualQueue(VirtualTime& time, std::string label)
    : DispatchQueue(std::move(label)), time_(time) {}
ManualQueue::~ManualQueue() { time_.forget(this); }

void ManualQueue::async(Task task) { time_.post(this, 0, std::move(task)); }
TaskHandle ManualQueue::after(double delayMs, Task task) {
    return time_.post(this, delayMs, std::move(task));
}

void ManualQueue::run(const Task& task) {
    CurrentScope scope(this);
    task();
}

}  // namespace lumerix
