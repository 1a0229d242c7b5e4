// GATT value accumulation of QVLumerixItem.
#include "log/Log.h"
#include "receiver/QVLumerixItem.h"

namespace lumerix {

bool QVLumerixItem::updateCharacteristic(const BleCharacteristic& characteristic) {
    const BleUuid uuid = characteristic.uuid();
    const QString key = uuid.toString();
    bool repeated = false;
    bool complete = false;
    {
        std::lock_guard lock(mutex_);
        if (characteristicInfo_.contains(key)) {
            repeated = true;
            complete = hasAllCharacteristics_ != 0;
        } else {
            const QByteArray value = characteristic.value();
            characteristicInfo_.insert(key, value);
            dataBuffer_.append(value);
            // Only the characteristic just received decides: number LastDataIndex completes the set.
            const QByteArray& b = uuid.bytes();
            const int second = b.size() > 1 ? static_cast<uint8_t>(b[1]) : 0;
            complete =
                static_cast<uint32_t>(second - 0x85) == static_cast<uint32_t>(lumerixHeader_.LastDataIndex);
            hasAllCharacteristics_ = complete ? 1 : 0;
        }
    }
    if (repeated) Log::logf("updating characteristic<%s>...", key.toUtf8().constData());
    return complete;
}

}  // namespace lumerix
