#include "platform/bluez/BluezLink.h"

#include "dispatch/DispatchQueue.h"

namespace lumerix {

void BluezLink::run(std::function<void()> fn) {
    std::lock_guard lock(mutex_);
    if (queue_) queue_->async(std::move(fn));
}

void BluezLink::post(std::function<void(BluezEngine&)> fn) {
    run([self = shared_from_this(), fn = std::move(fn)] {
        if (self->engine) fn(*self->engine);
    });
}

void BluezLink::deliver(std::function<void()> fn) {
    run([self = shared_from_this(), fn = std::move(fn)] {
        if (self->engine && !self->closing.load()) fn();
    });
}

void BluezLink::detach() {
    std::lock_guard lock(mutex_);
    queue_ = nullptr;
}

}  // namespace lumerix
