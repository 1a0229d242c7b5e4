#pragma once
// A beacon the legacy reader has seen: its peripheral, last RSSI and the time of the last sighting
// (seconds since 1970).
#include "ble/BlePeripheral.h"

namespace lumerix {

class BeaconInfo {
public:
    explicit BeaconInfo(BlePeripheralRef peripheral) : peripheral_(std::move(peripheral)) {}

    // "Peripheral"
    const BlePeripheralRef& peripheral() const { return peripheral_; }
    void SetRSSI(double rssi) { rssi_ = rssi; }
    double GetRSSI() const { return rssi_; }
    void SetTimpStamp(double seconds) { stamp_ = seconds; }
    double GetTimpStamp() const { return stamp_; }

private:
    BlePeripheralRef peripheral_;
    double rssi_ = 0;
    double stamp_ = 0;
};

}  // namespace lumerix
