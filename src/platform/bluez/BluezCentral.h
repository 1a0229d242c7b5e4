#pragma once
// BleCentral over bluetoothd's D-Bus API (org.bluez on the system bus).
//
// Threads: created on the main thread with the queue it reports on, which must be a Qt event
// queue (QtThreadQueue in production): all D-Bus work runs on that queue's thread, on a system-bus
// connection of its own, and every call is asynchronous, so a slow bluetoothd never blocks it.
// Public methods may be called from any thread; state() reads an atomic. The destructor tears the
// engine down synchronously on the queue and must not run on the queue itself.
//
// State: no org.bluez -> 0, access denied -> 3, no adapter -> 2, Powered false -> 4, true -> 5.
// Advertisements: InterfacesAdded of a Device1, or PropertiesChanged carrying RSSI or
// ManufacturerData, while scanning; devices bluetoothd already knew when the scan started count
// only once they report again. Errors carry the BluezErrorCode numbers (BluezProperties.h);
// a failed Device1.Connect is always 10, the core's "connection failed".
#include <memory>

#include "ble/BleCentral.h"

namespace lumerix {

class BluezLink;

class BluezCentral final : public BleCentral {
public:
    BluezCentral(BleCentralDelegate* delegate, DispatchQueue* queue);
    ~BluezCentral() override;

    static BleCentralFactory factory();

    int state() const override;
    void scanForPeripherals(bool allowDuplicates) override;
    void stopScan() override;
    void connectPeripheral(const BlePeripheralRef& peripheral) override;
    void cancelPeripheralConnection(const BlePeripheralRef& peripheral) override;

private:
    std::shared_ptr<BluezLink> link_;
    DispatchQueue* queue_;
    bool hasEngine_ = false;
};

}  // namespace lumerix
