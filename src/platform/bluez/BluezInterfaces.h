#pragma once
// The org.bluez interfaces the central uses, one thin class each: their names and the method
// calls made on them. Calls are asynchronous; completions run on the bus's thread.
#include <QByteArray>
#include <QString>
#include <QVariantMap>
#include <optional>

#include "platform/bluez/BluezProperties.h"
#include "platform/bluez/SdBus.h"

namespace lumerix::bluez {

class Adapter1 {
public:
    static constexpr const char* kInterface = "org.bluez.Adapter1";
    // Transport "le", DuplicateData as given, and Pattern when not empty: bluetoothd then creates
    // no object and sends no signal for a device whose name (or address) does not start with it.
    static bool setDiscoveryFilter(sd_bus* bus, const QString& path, bool duplicateData,
                                   const QString& pattern, sdbus::Completion done);
    static bool startDiscovery(sd_bus* bus, const QString& path, sdbus::Completion done);
    static bool stopDiscovery(sd_bus* bus, const QString& path, sdbus::Completion done);
};

class Device1 {
public:
    static constexpr const char* kInterface = "org.bluez.Device1";
    static bool connect(sd_bus* bus, const QString& path, sdbus::Completion done);
    static bool disconnect(sd_bus* bus, const QString& path, sdbus::Completion done);
    // Device1.Disconnected(reason, message): the reason, or empty when the signal has another shape.
    static QString disconnectedReason(sd_bus_message* m);

    using Advertisement = BluezAdvertisement;
    // The one reader of Device1 properties: the a{sv} of a PropertiesChanged (the read position
    // just after the interface name), of InterfacesAdded or of the snapshot. RSSI and
    // ManufacturerData go into *advertisement, every other property into *changed.
    // With ignored, advertisement properties are skipped unread. The lowest company identifier's
    // data wins. False on a malformed message.
    static bool readChanges(sd_bus_message* m, bool ignored, Advertisement* advertisement,
                            QVariantMap* changed);
};

class GattService1 {
public:
    static constexpr const char* kInterface = "org.bluez.GattService1";
};

class GattCharacteristic1 {
public:
    static constexpr const char* kInterface = "org.bluez.GattCharacteristic1";
    // ReadValue({}); the completion reads the value with value().
    static bool readValue(sd_bus* bus, const QString& path, sdbus::Completion done);
    // The ay of a ReadValue reply; false (with the signature in *problem) for another shape.
    static bool value(const sdbus::Reply& reply, QByteArray* out, QString* problem);
};

}  // namespace lumerix::bluez
