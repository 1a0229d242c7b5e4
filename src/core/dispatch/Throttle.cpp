#include "dispatch/Throttle.h"

namespace lumerix {

Throttle::Throttle(DispatchQueue& queue, double intervalMs, std::function<void()> action)
    : queue_(queue), intervalMs_(intervalMs), action_(std::move(action)) {}

Throttle::~Throttle() {
    if (pending_) pending_->cancel();
}

void Throttle::trigger() {
    if (pending_) return;  // a run is already due
    const double now = queue_.clock().monotonicMs();
    if (!lastRunMs_ || now - *lastRunMs_ >= intervalMs_) {
        run();
        return;
    }
    pending_ = queue_.after(*lastRunMs_ + intervalMs_ - now, [this] {
        pending_.reset();
        run();
    });
}

void Throttle::run() {
    lastRunMs_ = queue_.clock().monotonicMs();
    action_();
}

}  // namespace lumerix
