#pragma once
// BleCentral over bluetoothd's D-Bus API (org.bluez on the system bus), through sd-bus.
//
// Threads: the central owns one intake thread, which owns its own system-bus connection and runs
// every D-Bus call asynchronously, so a slow bluetoothd never blocks it. Callbacks reach the
// delegate on the queue given at creation (any DispatchQueue: no event loop is needed there), one
// task per intake drain, advertisements of a drain as one centralManagerDidDiscoverPeripherals.
// Public methods may be called from any thread; state() reads an atomic. The destructor stops and
// joins the intake thread; callbacks not yet run are dropped.
//
// State: no org.bluez -> 0, access denied -> 3, no adapter -> 2, Powered false -> 4, true -> 5,
// followed from the bus's signals (owner changes of org.bluez, adapters added and removed, power).
// Advertisements: InterfacesAdded of a Device1, or PropertiesChanged carrying RSSI or
// ManufacturerData, while scanning; devices bluetoothd already knew when the scan started count
// only once they report again. With onlyLocalName set, bluetoothd is asked for devices whose name
// starts with it, and a device whose Name is known and differs is not reported (nameless devices
// are). A device whose object bluetoothd removes is reported forgotten.
//
// Discovery runs in windows (DiscoveryWindows): at the start of each scan request, then a pause
// until the next, except while the demand says someone looks. A lost system-bus connection is
// opened again. Errors carry the BluezErrorCode numbers (BluezProperties.h);
// a failed Device1.Connect is always 10, the core's "connection failed".
#include <QString>
#include <atomic>
#include <memory>
#include <optional>
#include <thread>

#include "ble/BleCentral.h"

namespace lumerix {

class BluezLink;
class ScanDemand;

class BluezCentral final : public BleCentral {
public:
    BluezCentral(BleCentralDelegate* delegate, DispatchQueue* queue,
                 std::optional<QString> onlyLocalName = {}, std::shared_ptr<ScanDemand> demand = nullptr);
    ~BluezCentral() override;

    static BleCentralFactory factory(const std::optional<QString>& onlyLocalName = {},
                                     const std::shared_ptr<ScanDemand>& demand = nullptr);

    int state() const override;
    void scanForPeripherals(bool allowDuplicates) override;
    void stopScan() override;
    void connectPeripheral(const BlePeripheralRef& peripheral) override;
    void cancelPeripheralConnection(const BlePeripheralRef& peripheral) override;

private:
    std::shared_ptr<BluezLink> link_;
    std::shared_ptr<ScanDemand> demand_;
    int demandListener_ = 0;
    std::atomic<bool> stop_{false};
    std::thread intake_;
};

}  // namespace lumerix
