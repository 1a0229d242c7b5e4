// GATT value accumulation of QVLumerixItem (placeholder until implemented).
#include "receiver/QVLumerixItem.h"

namespace lumerix {

bool QVLumerixItem::updateCharacteristic(const BleCharacteristic&) { return false; }

}  // namespace lumerix
