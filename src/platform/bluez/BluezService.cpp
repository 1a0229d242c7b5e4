#include "platform/bluez/BluezService.h"

namespace lumerix {

std::vector<BleCharacteristicRef> BluezService::characteristics() const {
    std::lock_guard lock(mutex_);
    return characteristics_;
}

void BluezService::setCharacteristics(std::vector<BleCharacteristicRef> list) {
    std::lock_guard lock(mutex_);
    characteristics_ = std::move(list);
}

}  // namespace lumerix
