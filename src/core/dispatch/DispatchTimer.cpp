#include "dispatch/DispatchTimer.h"

#include <cmath>

namespace lumerix {

DispatchTimer::DispatchTimer(DispatchQueue* queue, std::function<void()> block, double intervalMs)
    : queue_(queue), block_(std::move(block)), intervalMs_(intervalMs) {}

DispatchTimer::~DispatchTimer() { cancel(); }

void DispatchTimer::start() {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    nextDue_ = queue_->clock().monotonicMs() + intervalMs_;
    std::weak_ptr<DispatchTimer> weak = weak_from_this();
    pending_ = queue_->after(intervalMs_, [weak] {
        if (auto self = weak.lock()) self->fire();
    });
}

void DispatchTimer::fire() {
    std::function<void()> block;
    {
        std::lock_guard lock(mutex_);
        if (cancelled_) return;
        // Fixed period: the next firing is one interval after this one was due, not after it ran.
        nextDue_ += intervalMs_;
        double delay = nextDue_ - queue_->clock().monotonicMs();
        if (delay < 0) {
            nextDue_ = queue_->clock().monotonicMs() + intervalMs_;
            delay = intervalMs_;
        }
        std::weak_ptr<DispatchTimer> weak = weak_from_this();
        pending_ = queue_->after(delay, [weak] {
            if (auto self = weak.lock()) self->fire();
        });
        block = block_;
    }
    block();
}

void DispatchTimer::cancel() {
    TaskHandle pending;
    {
        std::lock_guard lock(mutex_);
        cancelled_ = true;
        pending = std::move(pending_);
    }
    if (pending) pending->cancel();
}

bool DispatchTimer::isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

DispatchTimerRef CreateDispatchTimer(DispatchQueue* queue, std::function<void()> block,
                                     double intervalSeconds) {
    // Also refuses intervals whose nanosecond count does not fit 64 bits.
    if (!queue || !block || !(intervalSeconds > 0) || !(intervalSeconds < 1.8e10)) return nullptr;
    // Seconds to whole nanoseconds, truncated, as the timer source takes them.
    const auto ns = static_cast<uint64_t>(intervalSeconds * 1000000000.0);
    auto timer = std::make_shared<DispatchTimer>(queue, std::move(block), static_cast<double>(ns) / 1e6);
    timer->start();
    return timer;
}

DispatchTimerRef GCDTimer::dispatchTimerForInterval(uint64_t seconds, DispatchQueue* queue,
                                                    std::function<void()> block) {
    return CreateDispatchTimer(queue, std::move(block), static_cast<double>(seconds));
}

void GCDTimer::cancelDispatchedTimer(const DispatchTimerRef& timer) {
    if (timer) timer->cancel();
}

}  // namespace lumerix
