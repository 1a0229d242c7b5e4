#pragma once
// The intake thread's timers as a DispatchQueue, so logic written for queues (the discovery
// windows) runs on the intake loop unchanged. The loop arms one event-loop timer for the next
// deadline and runs what is due; tasks due at the same time run in the order they were queued.
// Intake thread only; async() is "as soon as the loop comes by".
#include <map>
#include <optional>

#include "dispatch/DispatchQueue.h"

namespace lumerix {

class IntakeQueue final : public DispatchQueue {
public:
    IntakeQueue() : DispatchQueue("lumerix-bluez") {}
    void async(Task task) override { after(0, std::move(task)); }
    TaskHandle after(double delayMs, Task task) override;
    const Clock& clock() const override { return clock_; }

    // Runs every task due now, in due order.
    void runDue();
    // When the next task is due, on clock()'s monotonic milliseconds; none when nothing waits.
    std::optional<double> nextDueMs() const;

private:
    struct Entry {
        TaskHandle handle;
        Task task;
    };
    SystemClock clock_;
    std::multimap<double, Entry> tasks_;  // monotonic deadline -> task
};

}  // namespace lumerix
