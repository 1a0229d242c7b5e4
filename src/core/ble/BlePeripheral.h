#pragma once
// A remote LE device as the central role sees it. All operations are asynchronous; answers come
// to the peripheral's delegate on the owning central's queue.
#include <QString>
#include <memory>
#include <optional>
#include <vector>

#include "ble/BleTypes.h"

namespace lumerix {

class BlePeripheral;

class BlePeripheralDelegate {
public:
    virtual ~BlePeripheralDelegate() = default;
    virtual void peripheralDidDiscoverServices(BlePeripheral& peripheral,
                                               const std::optional<BleError>& error) {}
    virtual void peripheralDidDiscoverCharacteristicsForService(BlePeripheral& peripheral,
                                                                const BleServiceRef& service,
                                                                const std::optional<BleError>& error) {}
    virtual void peripheralDidUpdateValueForCharacteristic(BlePeripheral& peripheral,
                                                           const BleCharacteristicRef& characteristic,
                                                           const std::optional<BleError>& error) {}
    virtual void peripheralDidReadRSSI(BlePeripheral& peripheral, double rssi,
                                       const std::optional<BleError>& error) {}
};

class BlePeripheral {
public:
    virtual ~BlePeripheral() = default;
    // Stable 36-character upper-case UUID string that identifies this device.
    virtual QString identifier() const = 0;
    // The device's advertised or cached name; may be empty.
    virtual QString name() const = 0;

    // Non-owning; cleared by setting null.
    virtual void setDelegate(BlePeripheralDelegate* delegate) = 0;
    virtual void readRSSI() = 0;
    // No filter: every service.
    virtual void discoverServices() = 0;
    virtual std::vector<BleServiceRef> services() const = 0;
    // No filter: every characteristic of the service.
    virtual void discoverCharacteristics(const BleServiceRef& service) = 0;
    virtual void readValueForCharacteristic(const BleCharacteristicRef& characteristic) = 0;
};
using BlePeripheralRef = std::shared_ptr<BlePeripheral>;

}  // namespace lumerix
