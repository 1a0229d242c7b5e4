#pragma once
// A GattCharacteristic1 object; holds the last value read.
#include <QString>
#include <mutex>

#include "ble/BleTypes.h"

namespace lumerix {

class BluezCharacteristic final : public BleCharacteristic {
public:
    BluezCharacteristic(QString path, BleUuid uuid) : path_(std::move(path)), uuid_(std::move(uuid)) {}
    BleUuid uuid() const override { return uuid_; }
    QByteArray value() const override;
    void setValue(const QByteArray& value);
    const QString& path() const { return path_; }

private:
    const QString path_;
    const BleUuid uuid_;
    mutable std::mutex mutex_;
    QByteArray value_;
};

}  // namespace lumerix
