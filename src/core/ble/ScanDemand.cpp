#include "ble/ScanDemand.h"

namespace lumerix {

ScanDemand::Hold ScanDemand::hold() {
    changed(+1);
    // The hold keeps the demand alive, so releasing it late is always safe.
    return Hold(static_cast<void*>(this), [self = shared_from_this()](void*) { self->changed(-1); });
}

void ScanDemand::nudge() { changed(0); }

void ScanDemand::changed(int delta) {
    std::vector<std::shared_ptr<Listener>> listeners;
    {
        std::lock_guard lock(mutex_);
        holds_ += delta;
        if (delta == 0) ++nudges_;
        for (const auto& entry : listeners_) listeners.push_back(entry.second);
    }
    // Outside the lock: a listener may read the demand back.
    for (const auto& listener : listeners) (*listener)();
}

bool ScanDemand::isLooking() const {
    std::lock_guard lock(mutex_);
    return holds_ > 0;
}

uint64_t ScanDemand::nudges() const {
    std::lock_guard lock(mutex_);
    return nudges_;
}

int ScanDemand::addListener(Listener listener) {
    std::lock_guard lock(mutex_);
    const int id = ++nextId_;
    if (listener) listeners_.emplace_back(id, std::make_shared<Listener>(std::move(listener)));
    return id;
}

void ScanDemand::removeListener(int id) {
    std::lock_guard lock(mutex_);
    std::erase_if(listeners_, [id](const auto& entry) { return entry.first == id; });
}

}  // namespace lumerix
