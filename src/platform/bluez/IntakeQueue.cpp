#include "platform/bluez/IntakeQueue.h"

#include <algorithm>

namespace lumerix {

TaskHandle IntakeQueue::after(double delayMs, Task task) {
    auto handle = std::make_shared<Cancelable>();
    tasks_.emplace(clock_.monotonicMs() + std::max(0.0, delayMs), Entry{handle, std::move(task)});
    return handle;
}

void IntakeQueue::runDue() {
    const double now = clock_.monotonicMs();
    while (!tasks_.empty() && tasks_.begin()->first <= now) {
        Entry entry = std::move(tasks_.begin()->second);
        tasks_.erase(tasks_.begin());
        if (!entry.handle->isCancelled()) entry.task();
    }
}

double IntakeQueue::msUntilNext() const {
    // Cancelled tasks still count: waking for one early costs one empty pass.
    if (tasks_.empty()) return -1;
    return std::max(0.0, tasks_.begin()->first - clock_.monotonicMs());
}

}  // namespace lumerix
