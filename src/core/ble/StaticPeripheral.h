#pragma once
// A peripheral known only by its identifier and name: it answers no GATT requests. Stands for the
// devices of the simulated central, and for receivers in tests, benchmarks and fuzz targets.
#include <atomic>

#include "ble/BlePeripheral.h"

namespace lumerix {

class StaticPeripheral final : public BlePeripheral {
public:
    StaticPeripheral(QString identifier, QString name)
        : identifier_(std::move(identifier)), name_(std::move(name)) {}
    QString identifier() const override { return identifier_; }
    QString name() const override { return name_; }
    void setDelegate(BlePeripheralDelegate* delegate) override { delegate_.store(delegate); }
    void readRSSI() override {}
    void discoverServices() override {}
    std::vector<BleServiceRef> services() const override { return {}; }
    void discoverCharacteristics(const BleServiceRef&) override {}
    void readValueForCharacteristic(const BleCharacteristicRef&) override {}

private:
    const QString identifier_;
    const QString name_;
    std::atomic<BlePeripheralDelegate*> delegate_{nullptr};
};

}  // namespace lumerix
