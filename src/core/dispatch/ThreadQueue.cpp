#include "dispatch/ThreadQueue.h"

#include <chrono>
#include <future>

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
    {
        std::lock_guard lock(mutex_);
        tasks_.push(Entry{monotonicNow() + (delayMs > 0 ? delayMs : 0), seq_++, handle, std::move(task)});
    }
    wake_.notify_one();
    return handle;
}

void ThreadQueue::sync(const Task& task) {
    std::promise<void> done;
    async([&] {
        task();
        done.set_value();
    });
    done.get_future().wait();
}

void ThreadQueue::loop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (tasks_.empty()) {
            wake_.wait(lock);
            continue;
        }
        double wait = tasks_.top().due - monotonicNow();
        if (wait > 0) {
            wake_.wait_for(lock, std::chrono::microseconds(static_cast<int64_t>(wait * 1000.0) + 1));
            continue;
        }
        Entry entry = tasks_.top();
        tasks_.pop();
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
