#pragma once
// GATT identifiers, services, characteristics and errors as the central role sees them.
#include <QByteArray>
#include <QString>
#include <memory>
#include <optional>
#include <vector>

namespace lumerix {

// A GATT UUID. bytes() is what the design's UUID tests read: the two bytes of a 16-bit UUID
// (most significant first) when it sits on the Bluetooth base UUID, else all 16 bytes.
class BleUuid {
public:
    BleUuid() = default;
    static BleUuid fromUInt16(quint16 v);
    // Accepts "5885", "0x5885" or a full 128-bit text form.
    static BleUuid fromString(const QString& text);
    const QByteArray& bytes() const { return bytes_; }
    // "5885" for 16-bit UUIDs, upper-case 36-character form otherwise.
    QString toString() const;
    bool operator==(const BleUuid&) const = default;

private:
    QByteArray bytes_;
};

class BleCharacteristic {
public:
    virtual ~BleCharacteristic() = default;
    virtual BleUuid uuid() const = 0;
    // The last value read; empty before the first read.
    virtual QByteArray value() const = 0;
};
using BleCharacteristicRef = std::shared_ptr<BleCharacteristic>;

class BleService {
public:
    virtual ~BleService() = default;
    virtual BleUuid uuid() const = 0;
    // Known after characteristic discovery; empty before.
    virtual std::vector<BleCharacteristicRef> characteristics() const = 0;
};
using BleServiceRef = std::shared_ptr<BleService>;

// Errors reach the core as integer codes, the way the platform reports them.
struct BleError {
    int code = 0;
    QString description;
};

// Error code for a connection that failed (the platform's "connection failed").
inline constexpr int kBleErrorConnectionFailed = 10;

}  // namespace lumerix
