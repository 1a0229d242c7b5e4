#pragma once
// A peripheral that only has a name and an identifier; every request goes unanswered.
#include "ble/BlePeripheral.h"

namespace lumerix::test {

class StillPeripheral final : public BlePeripheral {
public:
    explicit StillPeripheral(QString id, QString name = QStringLiteral("LX"))
        : id_(std::move(id)), name_(std::move(name)) {}
    QString identifier() const override { return id_; }
    QString name() const override { return name_; }
    void setDelegate(BlePeripheralDelegate*) override {}
    void readRSSI() override {}
    void discoverServices() override {}
    std::vector<BleServiceRef> services() const override { return {}; }
    void discoverCharacteristics(const BleServiceRef&) override {}
    void readValueForCharacteristic(const BleCharacteristicRef&) override {}

private:
    QString id_;
    QString name_;
};

}  // namespace lumerix::test
