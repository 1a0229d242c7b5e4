#pragma once
// org.freedesktop.DBus.ObjectManager of org.bluez: the snapshot of every object bluetoothd
// exports, its InterfacesAdded/InterfacesRemoved signals, and the one rule for which adapter is
// the default one. Used by the central's engine, the start-up Bluetooth check and --doctor.
#include <QHash>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <optional>

#include "platform/bluez/BluezProperties.h"
#include "platform/bluez/SdBus.h"

namespace lumerix::bluez {

using InterfaceMap = QMap<QString, QVariantMap>;     // interface -> properties
using ManagedObjects = QMap<QString, InterfaceMap>;  // object path -> interfaces
// RSSI and ManufacturerData of Device1 objects, by path; their InterfaceMap holds the rest.
using Advertisements = QHash<QString, BluezAdvertisement>;

inline constexpr const char* kService = "org.bluez";

// What one GetManagedObjects call found.
struct Snapshot {
    bool reached = false;       // org.bluez answered
    bool accessDenied = false;  // the bus refused the call
    QString error;              // why not reached
    ManagedObjects objects;
    Advertisements advertisements;

    // Object paths that carry org.bluez.Adapter1.
    QStringList adapterPaths() const;
};

// BlueZ's default adapter: the lowest-numbered hciN (hci2 before hci10); names that are not
// hciN come after, in text order. Empty when there is none.
QString defaultAdapterPath(const QStringList& adapterPaths);

// Powered of an adapter of a snapshot; nullopt when there is no such adapter or the value is
// missing or not a boolean.
std::optional<bool> adapterPowered(const Snapshot& snapshot, const QString& path);
// The same for the default adapter.
std::optional<bool> defaultAdapterPowered(const Snapshot& snapshot);

class ObjectManager {
public:
    static constexpr const char* kInterface = "org.freedesktop.DBus.ObjectManager";

    // Parsers for the reply and the two signals; false when the message is not of that shape.
    // Device1 properties are read by Device1's reader, its advertisement kept apart.
    static bool readManagedObjects(sd_bus_message* m, ManagedObjects* out, Advertisements* advertisements);
    static bool readInterfacesAdded(sd_bus_message* m, QString* path, InterfaceMap* interfaces,
                                    BluezAdvertisement* advertisement);
    static bool readInterfacesRemoved(sd_bus_message* m, QString* path, QStringList* interfaces);

    // Asks for the snapshot; done runs on the bus's thread.
    static bool getManagedObjects(sd_bus* bus, std::function<void(Snapshot)> done);
    // The snapshot from the reply of GetManagedObjects.
    static Snapshot snapshotFromReply(const sdbus::Reply& reply);
    // One blocking GetManagedObjects on a connection of its own, bounded by timeoutMs. For
    // callers off the main thread (the start-up check runs it on a worker).
    static Snapshot takeSnapshot(int timeoutMs);
};

}  // namespace lumerix::bluez
