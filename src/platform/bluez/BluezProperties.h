#pragma once
// What BluezCentral keeps of bluetoothd's objects, and the pure rules that turn their D-Bus
// properties into what the central role reports. Values that arrive with an unexpected type are
// refused one by one (the caller logs the returned problems) and never crash the reader.
#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace lumerix {

// Error codes BluezCentral reports (BleError::code). They follow the central-role numbering the
// core already knows; 10 is kBleErrorConnectionFailed.
enum BluezErrorCode : int {
    BluezErrorUnknown = 0,                 // any D-Bus error without a better match
    BluezErrorInvalidParameters = 1,       // org.bluez.Error.InvalidArguments, InvalidValueLength
    BluezErrorNotConnected = 3,            // org.bluez.Error.NotConnected, or the device is not connected
    BluezErrorTimedOut = 6,                // no reply in time; disconnection reason Timeout
    BluezErrorPeripheralDisconnected = 7,  // the link or the device went away; reason Remote
    BluezErrorNotPermitted = 8,            // NotPermitted, NotAuthorized, AuthenticationFailed, AccessDenied
    BluezErrorNotSupported = 9,            // org.bluez.Error.NotSupported, UnknownMethod
    BluezErrorConnectionFailed = 10,       // Device1.Connect failed, whatever the D-Bus error
    BluezErrorInProgress = 11,             // org.bluez.Error.InProgress
};

struct BluezAdapterProperties {
    std::optional<bool> powered;
    // Applies a PropertiesChanged (or a snapshot's properties); returns what was refused.
    QStringList apply(const QVariantMap& changed, const QStringList& invalidated = {});
};

// A ManufacturerData record as the program keeps it: the company identifier (little-endian), then
// the value's bytes.
inline QByteArray manufacturerRecord(uint16_t company, const void* bytes, size_t size) {
    QByteArray record;
    record.reserve(static_cast<qsizetype>(size) + 2);
    record.append(static_cast<char>(company & 0xFF));
    record.append(static_cast<char>(company >> 8));
    record.append(static_cast<const char*>(bytes), static_cast<qsizetype>(size));
    return record;
}

// RSSI and ManufacturerData of one report, as the Device1 reader takes them off the wire.
struct BluezAdvertisement {
    bool hasRssi = false;
    qint16 rssi = 0;
    bool hasManufacturerData = false;
    std::optional<QByteArray> manufacturerData;  // company id (little-endian), then the bytes
    QString problem;                             // a ManufacturerData that was refused
};

struct BluezDeviceProperties {
    std::optional<QString> address;
    std::optional<QString> name;  // Device1.Name; Alias is deliberately not read
    std::optional<qint16> rssi;
    // Company identifier (little-endian) then the value bytes; the lowest company id wins.
    std::optional<QByteArray> manufacturerData;
    std::optional<bool> connected;
    std::optional<bool> servicesResolved;

    // RSSI and ManufacturerData come in the advertisement; in `changed` they are the ones the
    // reader found of another type, and are refused.
    QStringList apply(const QVariantMap& changed, const QStringList& invalidated = {},
                      const BluezAdvertisement& advertisement = {});
};

struct BluezGattProperties {
    std::optional<QString> uuid;
    QStringList apply(const QVariantMap& changed, const QStringList& invalidated = {});
};

namespace bluez {

// "00000000-0000-0000-0000-AABBCCDDEEFF" for "aa:bb:cc:dd:ee:ff"; empty when the text is no address.
QString identifierForAddress(const QString& address);
// "AA:BB:CC:DD:EE:FF" from ".../dev_AA_BB_CC_DD_EE_FF"; empty when the path has no such element.
QString addressFromDevicePath(const QString& path);
// The identifier of a device: from its Address property, else from its object path.
QString identifierForDevice(const QString& path, const BluezDeviceProperties& props);

// Central state from what is known of bluetoothd: 0 unknown (no org.bluez), 3 unauthorized,
// 2 unsupported (no adapter), 4 powered off, 5 powered on.
int centralState(bool bluezPresent, bool accessDenied, const std::optional<BluezAdapterProperties>& adapter);

int errorCodeForDBusError(const QString& errorName);
// Device1.Disconnected reason -> error for the disconnection; none for a local or unknown cause.
std::optional<int> disconnectErrorForReason(const QString& reason);

// True when `child` lies below `parent` in the object tree.
bool isBelow(const QString& child, const QString& parent);

}  // namespace bluez
}  // namespace lumerix
