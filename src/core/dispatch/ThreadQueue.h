#pragma once
// A serial queue on its own thread: a task list plus a timer heap on the monotonic clock.
// Cancelled tasks are swept out of the heap as it grows, so restarting a timer at a high rate
// keeps memory bounded by the live tasks rather than by everything posted in the last interval.
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "dispatch/DispatchQueue.h"

namespace lumerix {

class ThreadQueue final : public DispatchQueue {
public:
    explicit ThreadQueue(std::string label, std::shared_ptr<Clock> clock = systemClock());
    // Stops the thread; tasks not yet run are dropped. Must not be called from the queue itself.
    ~ThreadQueue() override;

    void async(Task task) override;
    TaskHandle after(double delayMs, Task task) override;
    const Clock& clock() const override { return *clock_; }

private:
    static constexpr size_t kMinSweep = 256;
    struct Entry {
        double due;
        uint64_t seq;
        TaskHandle handle;
        Task task;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.due != b.due ? a.due > b.due : a.seq > b.seq;
        }
    };
    void loop();
    double monotonicNow() const;
    // Removes cancelled entries; the caller destroys them after unlocking.
    std::vector<Entry> sweepCancelledLocked();

    std::shared_ptr<Clock> clock_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<Entry> tasks_;  // a heap ordered by Later: earliest at the front
    size_t sweepAt_ = kMinSweep;
    uint64_t seq_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace lumerix
