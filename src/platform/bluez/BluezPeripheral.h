#pragma once
// One Device1 object as a peripheral. BluezCentral makes one per device and reuses it, so the
// same device is always the same object. Operations hop onto the intake thread; answers reach the
// delegate on the central's delegate queue.
#include <QString>
#include <atomic>
#include <memory>
#include <mutex>

#include "ble/BlePeripheral.h"

namespace lumerix {

class BluezLink;

class BluezPeripheral final : public BlePeripheral {
public:
    BluezPeripheral(QString path, QString identifier, std::shared_ptr<BluezLink> link);

    QString identifier() const override { return identifier_; }
    QString name() const override;
    void setName(const QString& name);

    void setDelegate(BlePeripheralDelegate* delegate) override { delegate_.store(delegate); }
    BlePeripheralDelegate* delegate() const { return delegate_.load(); }

    void readRSSI() override;
    void discoverServices() override;
    std::vector<BleServiceRef> services() const override;
    void setServices(std::vector<BleServiceRef> list);
    void discoverCharacteristics(const BleServiceRef& service) override;
    void readValueForCharacteristic(const BleCharacteristicRef& characteristic) override;

    // The Device1 object path.
    const QString& path() const { return path_; }

private:
    const QString path_;
    const QString identifier_;
    const std::shared_ptr<BluezLink> link_;
    std::atomic<BlePeripheralDelegate*> delegate_{nullptr};
    mutable std::mutex mutex_;
    QString name_;
    std::vector<BleServiceRef> services_;
};

}  // namespace lumerix
