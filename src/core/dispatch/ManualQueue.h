#pragma once
// Virtual time for tests. One VirtualTime drives any number of ManualQueues; advancing it runs
// every due task of every queue in due-time order (ties in posting order) on the calling thread.
#include <cstdint>
#include <mutex>
#include <vector>

#include "dispatch/DispatchQueue.h"

namespace lumerix {

class ManualQueue;

class VirtualTime final : public Clock {
public:
    // Starts at 2026-01-01T00:00:00Z unless told otherwise.
    explicit VirtualTime(double startWallMs = 1767225600000.0);

    double nowMs() const override;
    double monotonicMs() const override;

    // Moves time forward by ms, running each task when its due time is reached.
    void advance(double ms);
    // Runs every task due now, including tasks those tasks post for now.
    void runUntilIdle();
    // Tasks waiting, cancelled ones included until they are swept out (only once many pile up).
    size_t pendingCount() const;

private:
    friend class ManualQueue;
    struct Entry {
        double due;
        uint64_t seq;
        ManualQueue* queue;
        TaskHandle handle;
        DispatchQueue::Task task;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.due != b.due ? a.due > b.due : a.seq > b.seq;
        }
    };
    TaskHandle post(ManualQueue* queue, double delayMs, DispatchQueue::Task task);
    void forget(ManualQueue* queue);
    // Drops entries for which `drop` holds; the caller destroys them after unlocking.
    template <typename Pred>
    std::vector<Entry> removeIfLocked(Pred drop);
    bool runOneDueBy(double limit);

    mutable std::mutex mutex_;
    double startWall_;
    double elapsed_ = 0;
    uint64_t seq_ = 0;
    static constexpr size_t kMinSweep = 1024;
    std::vector<Entry> tasks_;  // a heap ordered by Later: earliest at the front
    size_t sweepAt_ = kMinSweep;
};

class ManualQueue final : public DispatchQueue {
public:
    ManualQueue(VirtualTime& time, std::string label = "manual");
    ~ManualQueue() override;

    void async(Task task) override;
    TaskHandle after(double delayMs, Task task) override;
    const Clock& clock() const override { return time_; }

    void advance(double ms) { time_.advance(ms); }
    void runUntilIdle() { time_.runUntilIdle(); }
    VirtualTime& time() { return time_; }

private:
    friend class VirtualTime;
    void run(const Task& task);
    VirtualTime& time_;
};

}  // namespace lumerix
