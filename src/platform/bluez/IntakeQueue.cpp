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

std::optional<double> IntakeQueue::nextDueMs() const {
    // Cancelled tasks still count: waking for one early costs one empty pass.
    if (tasks_.empty()) return std::nullopt;
    return tasks_.begin()->first;
}

}  // namespace lumerix
