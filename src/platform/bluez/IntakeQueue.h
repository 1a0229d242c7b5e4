#pragma once
// The intake thread's timers as a DispatchQueue, so logic written for queues (the discovery
// windows) runs on the intake loop unchanged. The loop asks for the next deadline, sleeps until
// it at most, and runs what is due. Intake thread only; async() is "as soon as the loop comes by".
#include <map>

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
    // Milliseconds until the next task is due (0 when one is due), or -1 when none waits.
    double msUntilNext() const;

private:
    struct Entry {
        TaskHandle handle;
        Task task;
    };
    SystemClock clock_;
    std::multimap<double, Entry> tasks_;  // monotonic deadline -> task
};

}  // namespace lumerix
