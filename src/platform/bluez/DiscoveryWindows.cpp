#include "platform/bluez/DiscoveryWindows.h"

#include "ble/ScanDemand.h"

namespace lumerix {

DiscoveryWindows::DiscoveryWindows(DispatchQueue& queue, std::shared_ptr<ScanDemand> demand, Radio radio)
    : DiscoveryWindows(queue, std::move(demand), std::move(radio), Timing{}) {}

DiscoveryWindows::DiscoveryWindows(DispatchQueue& queue, std::shared_ptr<ScanDemand> demand, Radio radio,
                                   Timing timing)
    : queue_(queue), demand_(std::move(demand)), radio_(std::move(radio)), timing_(timing) {
    if (demand_) nudgesSeen_ = demand_->nudges();
}

DiscoveryWindows::~DiscoveryWindows() {
    if (timer_) timer_->cancel();
}

void DiscoveryWindows::scanRequested() {
    requested_ = true;
    windowEnd_ = queue_.clock().monotonicMs() + timing_.windowMs;
    update();
}

void DiscoveryWindows::scanStopped() {
    requested_ = false;
    update();
}

void DiscoveryWindows::boost() {
    boostEnd_ = queue_.clock().monotonicMs() + timing_.boostMs;
    update();
}

void DiscoveryWindows::setAudioActive(bool active) {
    audio_ = active;
    update();
}

void DiscoveryWindows::demandChanged() {
    if (demand_) {
        const uint64_t nudges = demand_->nudges();
        if (nudges != nudgesSeen_) {
            nudgesSeen_ = nudges;
            boost();
            return;
        }
    }
    update();
}

void DiscoveryWindows::radioLost() {
    requested_ = false;
    on_ = false;
}

bool DiscoveryWindows::decide(double now) const {
    if (!requested_) return false;
    if (demand_ && demand_->isLooking()) return true;
    if (audio_) return false;
    return now < windowEnd_ || now < boostEnd_;
}

void DiscoveryWindows::update() {
    const double now = queue_.clock().monotonicMs();
    const bool on = decide(now);
    // The next moment the answer may change by itself: the end of the window or of the boost.
    double next = -1;
    for (double end : {windowEnd_, boostEnd_}) {
        if (end > now && (next < 0 || end < next)) next = end;
    }
    if (requested_ && next >= 0) scheduleAt(next);
    if (on == on_) return;
    on_ = on;
    if (radio_) radio_(on);
}

void DiscoveryWindows::scheduleAt(double deadline) {
    if (timer_ && !timer_->isCancelled() && timerAt_ == deadline) return;
    if (timer_) timer_->cancel();
    timerAt_ = deadline;
    timer_ = queue_.after(deadline - queue_.clock().monotonicMs(), [this] {
        timerAt_ = -1;
        timer_.reset();
        update();
    });
}

}  // namespace lumerix
