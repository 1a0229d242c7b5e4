#pragma once
// A GattService1 object of a connected device.
#include <QString>
#include <mutex>

#include "ble/BleTypes.h"

namespace lumerix {

class BluezService final : public BleService {
public:
    BluezService(QString path, BleUuid uuid) : path_(std::move(path)), uuid_(std::move(uuid)) {}
    BleUuid uuid() const override { return uuid_; }
    std::vector<BleCharacteristicRef> characteristics() const override;
    void setCharacteristics(std::vector<BleCharacteristicRef> list);
    const QString& path() const { return path_; }

private:
    const QString path_;
    const BleUuid uuid_;
    mutable std::mutex mutex_;
    std::vector<BleCharacteristicRef> characteristics_;
};

}  // namespace lumerix
