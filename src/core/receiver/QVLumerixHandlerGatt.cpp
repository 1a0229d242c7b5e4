// GATT connection-info read path of QVLumerixHandler (placeholder bodies until implemented).
#include "receiver/QVLumerixHandler.h"

namespace lumerix {

void QVLumerixHandler::centralManagerDidConnectPeripheral(const BlePeripheralRef&) {}
void QVLumerixHandler::centralManagerDidFailToConnectPeripheral(const BlePeripheralRef&,
                                                                const std::optional<BleError>&) {}
void QVLumerixHandler::centralManagerDidDisconnectPeripheral(const BlePeripheralRef&,
                                                             const std::optional<BleError>&) {}
void QVLumerixHandler::peripheralDidDiscoverServices(BlePeripheral&, const std::optional<BleError>&) {}
void QVLumerixHandler::peripheralDidDiscoverCharacteristicsForService(BlePeripheral&, const BleServiceRef&,
                                                                      const std::optional<BleError>&) {}
void QVLumerixHandler::peripheralDidUpdateValueForCharacteristic(BlePeripheral&, const BleCharacteristicRef&,
                                                                 const std::optional<BleError>&) {}
void QVLumerixHandler::peripheralDidReadRSSI(BlePeripheral&, double, const std::optional<BleError>&) {}
void QVLumerixHandler::decrytLumerixHeader(const QVLumerixItemRef&, const QByteArray&) {}
void QVLumerixHandler::decrytLumerixData(const QVLumerixItemRef&) {}
void QVLumerixHandler::connectItemForTesting(const QVLumerixItemRef&) {}

}  // namespace lumerix
