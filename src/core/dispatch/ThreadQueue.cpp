#include "dispatch/ThreadQueue.h"

#include <algorithm>
#include <chrono>

namespace lumerix {

ThreadQueue::ThreadQueue(std::string label, std::shared_ptr<Clock> clock)
    : DispatchQueue(std::move(label)), clock_(std::move(clock)) {
    thread_ = std::thread([this] { loop(); });
}

ThreadQueue::~ThreadQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

double ThreadQueue::monotonicNow() const {
    using namespace std::chrono;
    return static_cast<double>(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count()) /
           1000.0;
}

void ThreadQueue::async(Task task) { after(0, std::move(task)); }

TaskHandle ThreadQueue::after(double delayMs, Task task) {
    auto handle = std::make_shared<Cancelable>();
    std::vector<Entry> swept;  // destroyed after the lock is released
    {
        std::lock_guard lock(mutex_);
        if (tasks_.size() >= sweepAt_) swept = sweepCancelledLocked();
        const uint64_t seq = seq_++;
        tasks_.push_back(Entry{monotonicNow() + (delayMs > 0 ? delayMs : 0), seq, handle, std::move(task)});
        std::push_heap(tasks_.begin(), tasks_.end(), Later{});
        // The thread only needs waking when it is waiting for something later than this task.
        // Signalled under the lock: once it is released the queue may be torn down at once.
        if (tasks_.front().seq == seq) wake_.notify_one();
    }
    return handle;
}

std::vector<ThreadQueue::Entry> ThreadQueue::sweepCancelledLocked() {
    std::vector<Entry> live;
    std::vector<Entry> cancelled;
    live.reserve(tasks_.size());
    for (auto& e : tasks_) (e.handle->isCancelled() ? cancelled : live).push_back(std::move(e));
    tasks_ = std::move(live);
    std::make_heap(tasks_.begin(), tasks_.end(), Later{});
    sweepAt_ = std::max(kMinSweep, tasks_.size() * 2);
    return cancelled;
}

void ThreadQueue::loop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (tasks_.empty()) {
            wake_.wait(lock);
            continue;
        }
        double wait = tasks_.front().due - monotonicNow();
        if (wait > 0) {
            wake_.wait_for(lock, std::chrono::microseconds(static_cast<int64_t>(wait * 1000.0) + 1));
            continue;
        }
        std::pop_heap(tasks_.begin(), tasks_.end(), Later{});
        Entry entry = std::move(tasks_.back());
        tasks_.pop_back();
        lock.unlock();
        if (!entry.handle->isCancelled()) {
            CurrentScope scope(this);
            entry.task();
        }
        entry = Entry{};  // release captures outside the lock
        lock.lock();
    }
}

}  // namespace lumerix
