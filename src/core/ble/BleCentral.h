#pragma once
// The central role: adapter state, scanning, connections. An implementation reports to its
// delegate on the queue it was created with, and is created and destroyed on that queue's owner.
//
// Notes for implementers:
// - state() follows the CoreBluetooth numbering below; report every change with
//   centralManagerDidUpdateState, and report the first state soon after creation.
// - scanForPeripherals(true) must deliver every advertisement, duplicates included.
// - An advertisement is reported as (peripheral, advertisement data, RSSI in dBm); the same
//   device is always the same peripheral object with the same identifier.
// - Errors carry integer codes; a connection that failed is kBleErrorConnectionFailed.
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "ble/AdvertisementData.h"
#include "ble/BlePeripheral.h"

namespace lumerix {

enum BleState : int {
    BleStateUnknown = 0,
    BleStateResetting = 1,
    BleStateUnsupported = 2,
    BleStateUnauthorized = 3,
    BleStatePoweredOff = 4,
    BleStatePoweredOn = 5,
};

// The RSSI a central reports when it has no reading; never a signal strength.
inline constexpr double kRssiNoReading = 127.0;

// One advertisement as a central reports it.
struct BleDiscovery {
    BlePeripheralRef peripheral;
    AdvertisementData advertisementData;
    double rssi = kRssiNoReading;
};

class BleCentralDelegate {
public:
    virtual ~BleCentralDelegate() = default;
    virtual void centralManagerDidUpdateState(int state) {}
    virtual void centralManagerDidDiscoverPeripheral(const BlePeripheralRef& peripheral,
                                                     const AdvertisementData& advertisementData,
                                                     double rssi) {}
    // Several advertisements heard together, in the order heard. A central that batches calls
    // this instead of the single form; by default it is the single form, once per advertisement.
    virtual void centralManagerDidDiscoverPeripherals(const std::vector<BleDiscovery>& batch) {
        for (const BleDiscovery& d : batch)
            centralManagerDidDiscoverPeripheral(d.peripheral, d.advertisementData, d.rssi);
    }
    // The central no longer knows the device (BlueZ removed its object): it will not be reported
    // again until it advertises anew, so whatever is kept for it can go.
    virtual void centralManagerDidForgetPeripheral(const BlePeripheralRef& peripheral) {}
    virtual void centralManagerDidConnectPeripheral(const BlePeripheralRef& peripheral) {}
    virtual void centralManagerDidFailToConnectPeripheral(const BlePeripheralRef& peripheral,
                                                          const std::optional<BleError>& error) {}
    virtual void centralManagerDidDisconnectPeripheral(const BlePeripheralRef& peripheral,
                                                       const std::optional<BleError>& error) {}
};

class BleCentral {
public:
    virtual ~BleCentral() = default;
    // The live state (BleState).
    virtual int state() const = 0;
    // No service filter. allowDuplicates: report every advertisement, not only a device's first.
    virtual void scanForPeripherals(bool allowDuplicates) = 0;
    virtual void stopScan() = 0;
    virtual void connectPeripheral(const BlePeripheralRef& peripheral) = 0;
    virtual void cancelPeripheralConnection(const BlePeripheralRef& peripheral) = 0;
};

class DispatchQueue;
// How the handler gets its central: given the delegate and the queue to report on.
using BleCentralFactory = std::function<std::unique_ptr<BleCentral>(BleCentralDelegate*, DispatchQueue*)>;

}  // namespace lumerix
