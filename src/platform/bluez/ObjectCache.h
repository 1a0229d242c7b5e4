#pragma once
// What the central knows of bluetoothd's objects, on the intake thread: the snapshot
// (GetManagedObjects) and the signals that keep it current (InterfacesAdded/Removed,
// PropertiesChanged of adapters, devices and audio transports, Device1.Disconnected, org.bluez
// coming and going). Services, characteristics and connection changes go to the GattClient; the
// rest is told to the owner through the callbacks.
#include <QHash>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/bluez/BluezProperties.h"
#include "platform/bluez/ObjectManager.h"
#include "platform/bluez/SdBus.h"

namespace lumerix {

class GattClient;

class ObjectCache final {
public:
    // onlyLocalName: devices whose Name is known and differs are ignored; their advertisements
    // are skipped unread.
    ObjectCache(GattClient& gatt, std::optional<QString> onlyLocalName);
    ObjectCache(const ObjectCache&) = delete;
    ObjectCache& operator=(const ObjectCache&) = delete;

    // Set by the owner before attach.
    std::function<void()> onStateInputs;                  // bluetoothd, adapters or access changed
    std::function<void(const QString&)> onNamed;          // a device with a Name was updated
    std::function<void(const QString&)> onAdvertisement;  // a device was reported (RSSI, data)
    std::function<void(const QString&)> onDeviceGone;     // its object is gone
    std::function<void(bool)> onAudio;                    // an audio transport is active or not

    // Subscribes on bus (false when a rule was refused); detach drops the subscriptions.
    bool attach(sd_bus* bus);
    void detach();
    void takeSnapshot();
    // bluetoothd left the bus, or the bus itself went: every object goes.
    void bluezGone();
    // No bus at all: what is known (nothing) counts as settled.
    void settleWithoutBus();
    // Discovery was refused: the adapter may be read, not scanned.
    void setAccessDenied();

    // A PropertiesChanged on the device that carried its RSSI or ManufacturerData only, read from
    // the message's bytes (see BusRelay).
    void deviceAdvertised(std::string_view path, const BluezAdvertisement& advertisement);

    bool settled() const { return snapshotDone_; }
    QString adapterPath() const;
    int centralState() const;
    const QHash<QString, BluezDeviceProperties>& devices() const { return devices_; }

private:
    struct KnownPath {
        QString path;
        bool ignored = false;  // Name known and not onlyLocalName_
    };
    struct PathHash {
        using is_transparent = void;
        size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };

    static int onInterfacesAdded(sd_bus_message* m, void* self, sd_bus_error*);
    static int onInterfacesRemoved(sd_bus_message* m, void* self, sd_bus_error*);
    static int onDevicePropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*);
    static int onAdapterPropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*);
    static int onTransportPropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*);
    static int onDeviceDisconnected(sd_bus_message* m, void* self, sd_bus_error*);
    static int onNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error*);
    static int onMatchInstalled(sd_bus_message* m, void* self, sd_bus_error*);

    using KnownPaths = std::unordered_map<std::string, KnownPath, PathHash, std::equal_to<>>;

    void devicePropertiesChanged(sd_bus_message* m);
    void applyDeviceChanges(KnownPaths::const_iterator known, std::string_view rawPath,
                            const BluezAdvertisement& advertisement, const QVariantMap& changed,
                            const QStringList& invalidated);
    void onSnapshot(quint64 generation, const bluez::Snapshot& snapshot);
    void clearObjects(int disconnectError);
    void addInterfaces(const QString& path, const bluez::InterfaceMap& interfaces, bool fromSignal,
                       const BluezAdvertisement* advertisement = nullptr);
    void updateDevice(const QString& path, const QVariantMap& changed, const QStringList& invalidated,
                      bool fromSignal, const BluezAdvertisement* advertisement = nullptr);
    void removeDevice(const QString& path, int disconnectError);
    void noteName(const QString& path, const BluezDeviceProperties& device);
    void noteTransport(const QString& path, const QVariantMap& changed);
    void audioMayHaveChanged();
    static void logProblems(const QString& path, const QString& interface, const QStringList& problems);

    GattClient* const gatt_;
    const std::optional<QString> onlyLocalName_;
    sd_bus* bus_ = nullptr;
    std::vector<sdbus::SlotPtr> matches_;

    quint64 snapshotGeneration_ = 0;
    bool snapshotDone_ = false;
    bool bluezPresent_ = false;
    bool accessDenied_ = false;
    bool audioActive_ = false;

    QMap<QString, BluezAdapterProperties> adapters_;
    QHash<QString, bool> transports_;  // MediaTransport1 paths -> State is "active"
    QHash<QString, BluezDeviceProperties> devices_;
    // Device paths as sd-bus gives them. Advertisements of ignored devices are skipped unread (a
    // Name change still reaches them).
    KnownPaths paths_;
};

}  // namespace lumerix
