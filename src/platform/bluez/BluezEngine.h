#pragma once
// The part of BluezCentral that lives on the intake thread: the system-bus connection (sd-bus,
// opened again when it drops), the state reported to the delegate and the peripheral objects
// handed out. The cache of bluetoothd's objects is ObjectCache's, discovery DiscoverySession's,
// connections and GATT GattClient's; the engine wires them.
//
// The intake runs on an sd-event loop of its own: the connection (its socket read by BusRelay,
// which takes plain advertisements itself and hands the rest to sd-bus) is attached to it, the wake
// eventfd (commands, the stop request) is an io source, and IntakeQueue's timers are one time
// source armed for the queue's next deadline. A flood is coalesced: when the connection wakes the
// loop, everything waiting is processed and the connection is detached from the loop for
// kCoalescingIntervalMs; then what gathered is processed in one go, and the connection is attached
// again once a pass finds nothing. What a pass produced goes to the delegate queue in one task, so
// a flood of advertisements costs one wake and one task per interval instead of one per
// advertisement.
#include <QHash>
#include <QMap>
#include <QString>
#include <atomic>
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
#include "platform/bluez/BusRelay.h"
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

    // The intake loop; returns once stop is set and the link woken.
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

    bool setUpLoop(int wakeFd);
    void start();
    void reconnectLater();
    // The connection failed: everything made from it goes, and a new one is tried later.
    void dropBus(const char* why);
    // Everything made from the connection goes, then the connection.
    void closeBus();
    bool attachBus();
    void detachBus();
    // Processes what is waiting, at most kMaxMessagesPerDrain messages; returns how many steps
    // did work, or a negative errno when the connection failed.
    int drain();
    // Processes what waits; then the next messages gather for an interval if the connection woke
    // the loop or something came, else the connection wakes the loop again.
    void drainAndPause(bool woken);
    void pauseBus(int processed);
    void armQueueTimer();
    void flush();

    static int onWake(sd_event_source* source, int fd, uint32_t revents, void* userdata);
    static int onQueueTimer(sd_event_source* source, uint64_t usec, void* userdata);
    static int onResume(sd_event_source* source, uint64_t usec, void* userdata);
    static int onRelayReadable(sd_event_source* source, int fd, uint32_t revents, void* userdata);

    // The device's object is gone: the delegate hears that the peripheral is forgotten.
    void forgetPeripheral(const QString& path);
    void recomputeState();

    std::shared_ptr<BluezPeripheral> peripheralFor(const QString& path);
    void reportAdvertisement(const QString& path);
    void deliver(std::function<void()> fn);

    BleCentralDelegate* const delegate_;
    std::weak_ptr<BluezLink> link_;
    const std::optional<QString> onlyLocalName_;
    sdbus::EventPtr event_;
    sdbus::SourcePtr wakeSource_;
    sdbus::SourcePtr queueTimer_;   // armed for queue_'s next deadline
    sdbus::SourcePtr resumeTimer_;  // ends a coalescing pause
    std::optional<double> queueTimerDueMs_;
    bool ownSourceRan_ = false;        // this loop iteration ran one of the sources above
    std::unique_ptr<BusRelay> relay_;  // reads bus_'s socket (absent for a bus that is not a Unix socket)
    sdbus::SourcePtr relaySource_;     // the relay's socket in the loop
    sdbus::BusPtr bus_;
    bool busAttached_ = false;  // bus_ wakes the loop (else it is paused or absent)
    IntakeQueue queue_;         // the intake loop's timers
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
