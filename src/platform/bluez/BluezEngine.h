#pragma once
// The part of BluezCentral that lives on the intake thread: the system-bus connection (sd-bus,
// opened again when it drops), the state reported to the delegate and the peripheral objects
// handed out. The cache of bluetoothd's objects is ObjectCache's, discovery DiscoverySession's,
// connections and GATT GattClient's; the engine wires them.
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
#include "platform/bluez/ObjectCache.h"
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
    struct Delivery {
        std::function<void()> callback;  // or, when empty, a batch of advertisements
        std::vector<BleDiscovery> advertisements;
    };

    void start();
    void reconnectLater();
    // Processes what is waiting, at most kMaxMessagesPerDrain messages; true when more may be.
    bool drain();
    void flush();
    int waitTimeoutMs() const;

    // The device's object is gone: the delegate hears that the peripheral is forgotten.
    void forgetPeripheral(const QString& path);
    void recomputeState();

    std::shared_ptr<BluezPeripheral> peripheralFor(const QString& path);
    void reportAdvertisement(const QString& path);
    void deliver(std::function<void()> fn);
    static double monotonicMs();

    BleCentralDelegate* const delegate_;
    std::weak_ptr<BluezLink> link_;
    const std::optional<QString> onlyLocalName_;
    sdbus::BusPtr bus_;
    IntakeQueue queue_;  // the intake loop's timers
    DiscoverySession discovery_;
    double reconnectMs_ = kReconnectMs;
    bool busLost_ = false;
    std::vector<Delivery> pending_;  // for the delegate queue, in order

    bool stateReported_ = false;
    int state_ = BleStateUnknown;

    QHash<QString, std::shared_ptr<BluezPeripheral>> peripherals_;
    ObjectCache cache_;
    GattClient gatt_;  // reads the cache's devices and peripherals_
};

}  // namespace lumerix
