#pragma once
// The part of BluezCentral that lives on the intake thread: the system-bus connection (sd-bus,
// opened again when it drops), the signal subscriptions and the cache of adapters, devices and
// audio transports. Discovery is DiscoverySession's; connections and GATT are GattClient's.
//
// The intake loop drains every message that is waiting, runs the commands posted to it, then
// hands what the drain produced to the delegate queue in one task, and waits at least
// kCoalescingIntervalMs after a drain before the next one, so a flood of advertisements costs one
// wake per interval instead of one per advertisement.
#include <QHash>
#include <QMap>
#include <QString>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ble/BleCentral.h"
#include "platform/bluez/BluezCharacteristic.h"
#include "platform/bluez/BluezInterfaces.h"
#include "platform/bluez/BluezPeripheral.h"
#include "platform/bluez/BluezProperties.h"
#include "platform/bluez/BluezService.h"
#include "platform/bluez/DiscoverySession.h"
#include "platform/bluez/GattClient.h"
#include "platform/bluez/IntakeQueue.h"
#include "platform/bluez/ObjectManager.h"
#include "platform/bluez/SdBus.h"

namespace lumerix {

class BluezLink;
class ScanDemand;

class BluezEngine final {
public:
    // How long the intake thread lets messages gather after a drain.
    static constexpr double kCoalescingIntervalMs = 20.0;
    // A drain ends after this many messages even when more wait, so that commands and the
    // delegate's batches keep moving while the intake is behind.
    static constexpr int kMaxMessagesPerDrain = 1024;
    // A lost system-bus connection is tried again after this, doubling up to kMaxReconnectMs.
    static constexpr double kReconnectMs = 500.0;
    static constexpr double kMaxReconnectMs = 8000.0;

    // onlyLocalName: advertisements of devices whose Name is known and differs are dropped here,
    // and bluetoothd is asked to report only devices whose name starts with it. demand (may be
    // null): whether someone looks, which keeps discovery from pausing.
    BluezEngine(BleCentralDelegate* delegate, const std::shared_ptr<BluezLink>& link,
                std::optional<QString> onlyLocalName, std::shared_ptr<ScanDemand> demand = nullptr);
    ~BluezEngine();
    BluezEngine(const BluezEngine&) = delete;
    BluezEngine& operator=(const BluezEngine&) = delete;

    // The intake loop; returns once stop is set (and the link woken).
    void run(const std::atomic<bool>& stop);

    void startScan(bool allowDuplicates);
    void stopScan();
    // The demand changed: discovery may have to run now, or may pause.
    void demandChanged();
    void connectDevice(const QString& path);
    void disconnectDevice(const QString& path);
    void readRssi(const QString& path);
    void discoverServices(const QString& path);
    void discoverCharacteristics(const QString& devicePath, const QString& servicePath);
    void readValue(const QString& devicePath, const QString& characteristicPath);

private:
    struct KnownPath {
        QString path;
        bool ignored = false;  // Name known and not onlyLocalName_
    };
    struct PathHash {
        using is_transparent = void;
        size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };
    struct Delivery {
        std::function<void()> callback;  // or, when empty, a batch of advertisements
        std::vector<BleDiscovery> advertisements;
    };

    void start();
    void reconnectLater();
    bool subscribe();
    // Processes what is waiting, at most kMaxMessagesPerDrain messages; true when more may be.
    bool drain();
    void flush();
    int waitTimeoutMs() const;

    static int onInterfacesAdded(sd_bus_message* m, void* self, sd_bus_error*);
    static int onInterfacesRemoved(sd_bus_message* m, void* self, sd_bus_error*);
    static int onDevicePropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*);
    static int onAdapterPropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*);
    static int onTransportPropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*);
    static int onDeviceDisconnected(sd_bus_message* m, void* self, sd_bus_error*);
    static int onNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error*);

    void devicePropertiesChanged(sd_bus_message* m);
    void takeSnapshot();
    void onSnapshot(quint64 generation, const bluez::Snapshot& snapshot);
    void bluezGone();
    void clearObjects(int disconnectError);
    void addInterfaces(const QString& path, const bluez::InterfaceMap& interfaces, bool fromSignal,
                       const BluezAdvertisement* advertisement = nullptr);
    void updateDevice(const QString& path, const QVariantMap& changed, const QStringList& invalidated,
                      bool fromSignal, const BluezAdvertisement* advertisement = nullptr);
    void removeDevice(const QString& path, int disconnectError);
    // The device's object is gone: the delegate hears that the peripheral is forgotten.
    void forgetPeripheral(const QString& path);
    void noteName(const QString& path, const BluezDeviceProperties& device);
    void recomputeState();
    QString adapterPath() const;
    void noteTransport(const QString& path, const QVariantMap& changed);
    void audioMayHaveChanged();

    std::shared_ptr<BluezPeripheral> peripheralFor(const QString& path);
    void reportAdvertisement(const QString& path);
    void deliver(std::function<void()> fn);
    void logProblems(const QString& path, const QString& interface, const QStringList& problems);
    static double monotonicMs();

    BleCentralDelegate* const delegate_;
    std::weak_ptr<BluezLink> link_;
    const std::optional<QString> onlyLocalName_;
    sdbus::BusPtr bus_;
    std::vector<sdbus::SlotPtr> matches_;
    IntakeQueue queue_;  // the intake loop's timers
    DiscoverySession discovery_;
    double reconnectMs_ = kReconnectMs;
    bool busLost_ = false;
    std::vector<Delivery> pending_;  // for the delegate queue, in order

    quint64 snapshotGeneration_ = 0;
    bool snapshotDone_ = false;
    bool bluezPresent_ = false;
    bool accessDenied_ = false;
    bool stateReported_ = false;
    int state_ = BleStateUnknown;
    bool audioActive_ = false;

    QMap<QString, BluezAdapterProperties> adapters_;
    QHash<QString, bool> transports_;  // MediaTransport1 paths -> State is "active"
    QHash<QString, BluezDeviceProperties> devices_;
    // Device paths as sd-bus gives them. Advertisements of ignored devices are skipped unread (a
    // Name change still reaches them).
    std::unordered_map<std::string, KnownPath, PathHash, std::equal_to<>> paths_;
    QHash<QString, std::shared_ptr<BluezPeripheral>> peripherals_;
    GattClient gatt_;  // after devices_ and peripherals_, which it reads
};

}  // namespace lumerix
