#include "platform/bluez/BluezLink.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "dispatch/DispatchQueue.h"

namespace lumerix {

BluezLink::BluezLink(DispatchQueue* queue) : queue_(queue), wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

BluezLink::~BluezLink() {
    if (wakeFd_ >= 0) close(wakeFd_);
}

void BluezLink::wake() {
    const uint64_t one = 1;
    if (wakeFd_ >= 0) (void)!write(wakeFd_, &one, sizeof one);
}

void BluezLink::post(std::function<void(BluezEngine&)> fn) {
    bool first = false;
    {
        std::lock_guard lock(mutex_);
        if (!attached_) return;
        first = commands_.empty();
        commands_.push_back(std::move(fn));
    }
    if (first) wake();
}

std::vector<std::function<void(BluezEngine&)>> BluezLink::takeCommands() {
    uint64_t count = 0;
    if (wakeFd_ >= 0) (void)!read(wakeFd_, &count, sizeof count);
    std::lock_guard lock(mutex_);
    return std::exchange(commands_, {});
}

void BluezLink::deliver(std::vector<std::function<void()>> callbacks) {
    if (callbacks.empty()) return;
    std::lock_guard lock(mutex_);
    if (!queue_ || !attached_) return;
    queue_->async([self = shared_from_this(), callbacks = std::move(callbacks)] {
        for (const auto& callback : callbacks) {
            if (self->closing.load()) return;
            callback();
        }
    });
}

void BluezLink::detach() {
    std::lock_guard lock(mutex_);
    attached_ = false;
    queue_ = nullptr;
    // Commands already posted still run (a stop of discovery just before teardown must reach
    // bluetoothd); their callbacks are dropped.
}

}  // namespace lumerix
