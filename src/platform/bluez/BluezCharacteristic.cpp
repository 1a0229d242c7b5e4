#include "platform/bluez/BluezCharacteristic.h"

namespace lumerix {

QByteArray BluezCharacteristic::value() const {
    std::lock_guard lock(mutex_);
    return value_;
}

void BluezCharacteristic::setValue(const QByteArray& value) {
    std::lock_guard lock(mutex_);
    value_ = value;
}

}  // namespace lumerix
