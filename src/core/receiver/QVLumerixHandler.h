#pragma once
// The one object through which the rest of the program sees receivers: owns the central, scans for
// advertisements named "LX", keeps one QVLumerixItem per peripheral, decodes records, tracks the
// closest receiver and reports to one delegate. Also the GATT connection-info read path.
//
// Threads: central callbacks arrive on the scan queue; advertisement processing, the closest-item
// choice and item decay run on the serial evaluation queue; discovery and status notifications
// hop to the main queue; state, closest-item and error notifications do not.
#include <QHash>
#include <QString>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "ble/BleCentral.h"
#include "dispatch/DispatchQueue.h"
#include "receiver/QVLumerixItem.h"

namespace lumerix {

// All optional: the default bodies do nothing.
class LumerixHandler_Delegate {
public:
    virtual ~LumerixHandler_Delegate() = default;
    virtual void lumerixStateDidChange(int state) {}
    virtual void lumerixDidDiscoverItem(const QVLumerixItemRef& item) {}
    virtual void lumerixClosestItemDidChange(const QVLumerixItemRef& item) {}
    // lumerixItem:statusDidChange:
    virtual void lumerixItem(const QVLumerixItemRef& item, int status) {}
    virtual void lumerixOnError(int code) {}
    // The handler let go of the item (the central forgot its device, or the table was full and it
    // was the weakest): it will not be reported again. Main thread.
    virtual void lumerixDidForgetItem(const QVLumerixItemRef& item) {}
};

// What a handler is built from; production and tests differ only here.
struct HandlerEnvironment {
    std::shared_ptr<Clock> clock = systemClock();
    // The main thread's queue (the shell's); must outlive the handler and its work in flight: a
    // handler whose last reference goes away on its own queues is torn down there.
    DispatchQueue* mainQueue = nullptr;
    // Makes the scan queue and the serial evaluation queue, given their labels.
    std::function<std::unique_ptr<DispatchQueue>(const std::string& label)> makeQueue;
    BleCentralFactory makeCentral;
};

class QVLumerixHandler final : public BleCentralDelegate,
                               public BlePeripheralDelegate,
                               public std::enable_shared_from_this<QVLumerixHandler> {
public:
    static constexpr const char* kScanQueueLabel = "com.zemko.Lumerix.scan";
    static constexpr const char* kEvaluateQueueLabel = "com.zemko.Lumerix.evaluate";
    static constexpr double kRescanIntervalMs = 15000.0;
    // scanForLumerixService fails until the central's first state report, which comes shortly
    // after the handler is made: callers retry this many times this far apart (half a second).
    static constexpr int kScanRetryCount = 50;
    static constexpr std::chrono::microseconds kScanRetryPause{10000};
    // The item table holds at most this many receivers; a new one beyond it pushes out the
    // weakest, so a flood of advertisers cannot grow memory or per-advertisement work.
    static constexpr size_t kMaxItems = 256;

    // Plain construction (init). The handler must be owned through this shared pointer: queued
    // blocks reach it through weak references.
    static std::shared_ptr<QVLumerixHandler> create(HandlerEnvironment env);
    // The process-wide instance, created on first use from the environment given beforehand.
    static std::shared_ptr<QVLumerixHandler> sharedHandler();
    static void setSharedEnvironment(HandlerEnvironment env);

    explicit QVLumerixHandler(HandlerEnvironment env);
    ~QVLumerixHandler() override;

    // Stops the central and joins the scan and evaluation queues: afterwards no work of this
    // handler runs anywhere, and nothing it queued on the main queue finds it alive. Call from
    // the owner's thread (never from the handler's own queues) before whatever the handler calls
    // into goes away. The destructor does it too; calling it twice is harmless.
    void shutDown();

    // Scanning (main thread).
    bool scanForLumerixService(bool start);
    void rescan();
    void clearScannedResult();

    // Item table and closest item.
    QVLumerixItemRef getItemByUUID(const QString& uuid);
    void setItem(const QVLumerixItemRef& item, const QString& uuid);  // null removes
    // Drops the item from the table and stops its decay timer, on the evaluation queue, if the
    // table still holds that very item (the shell aged it out). Any thread.
    void forgetItem(const QVLumerixItemRef& item);
    size_t itemCount();
    QVLumerixItemRef itemAtAddress(const QString& address);
    void compareClosestItemWithItem(const QVLumerixItemRef& item);
    bool hasClosestItem();
    void resetClosestItem();
    void resovleClosestLumerixItem();
    static bool requiresBLEConnection() { return false; }

    // Advertisement decoding.
    void decrytLumerixItem(const QVLumerixItemRef& item, const std::optional<QByteArray>& manufacturerData);
    void logDecryptedItem(const QVLumerixItemRef& item);

    // Connection.
    void connectAndResolveItem(const QVLumerixItemRef& item);
    void disconnectCurrentItem();
    // Opens a GATT connection to the item; the --gatt-read mode reads a receiver this way (the
    // tray never does).
    void connectItem(const QVLumerixItemRef& item);

    // GATT connection-info decoding.
    void decrytLumerixHeader(const QVLumerixItemRef& item, const QByteArray& data);
    void decrytLumerixData(const QVLumerixItemRef& item);

    // Internal steps, public for tests.
    QVLumerixItemRef discoverPeripheral(const BlePeripheralRef& peripheral, const AdvertisementData& data,
                                        double rssi);
    void triggerBLEStateDidChange(int state);
    void triggerDidDiscoverItem(const QVLumerixItemRef& item);
    void triggerItem(const QVLumerixItemRef& item, int status);  // triggerItem:statusDidChange:
    void triggerOnError(int code);
    void dispatchToMainThreadIfNeccessary(std::function<void()> block);
    void lumerixItemDisappeared(const QVLumerixItemRef& item) {}

    // BleCentralDelegate.
    void centralManagerDidUpdateState(int state) override;
    void centralManagerDidDiscoverPeripheral(const BlePeripheralRef& peripheral,
                                             const AdvertisementData& advertisementData,
                                             double rssi) override;
    // One evaluation task for the batch's "LX" advertisements, and one main-queue task for the
    // notifications they cause.
    void centralManagerDidDiscoverPeripherals(const std::vector<BleDiscovery>& batch) override;
    void centralManagerDidConnectPeripheral(const BlePeripheralRef& peripheral) override;
    void centralManagerDidFailToConnectPeripheral(const BlePeripheralRef& peripheral,
                                                  const std::optional<BleError>& error) override;
    void centralManagerDidDisconnectPeripheral(const BlePeripheralRef& peripheral,
                                               const std::optional<BleError>& error) override;
    void centralManagerDidForgetPeripheral(const BlePeripheralRef& peripheral) override;
    // BlePeripheralDelegate.
    void peripheralDidDiscoverServices(BlePeripheral& peripheral,
                                       const std::optional<BleError>& error) override;
    void peripheralDidDiscoverCharacteristicsForService(BlePeripheral& peripheral,
                                                        const BleServiceRef& service,
                                                        const std::optional<BleError>& error) override;
    void peripheralDidUpdateValueForCharacteristic(BlePeripheral& peripheral,
                                                   const BleCharacteristicRef& characteristic,
                                                   const std::optional<BleError>& error) override;
    void peripheralDidReadRSSI(BlePeripheral& peripheral, double rssi,
                               const std::optional<BleError>& error) override;

    // Properties.
    std::mutex& itemLock() { return itemLock_; }
    int mCurrentState() const { return mCurrentState_.load(); }
    DispatchQueue* scanningQueue() const { return scanningQueue_.get(); }
    DispatchQueue* evaluatingQueue() const { return evaluatingQueue_.get(); }
    // Null once teardown has begun; callbacks still running then must not use the central.
    BleCentral* cbCM() const { return cbCM_.load(std::memory_order_acquire); }
    // A snapshot of the item table.
    QHash<QString, QVLumerixItemRef> discoveredDeviceInfo();
    QVLumerixItemRef closestPeer() const;
    void setClosestPeer(const QVLumerixItemRef& item);
    QVLumerixItemRef connectedPeer() const;
    void setConnectedPeer(const QVLumerixItemRef& item);
    LumerixHandler_Delegate* delegate() const { return delegate_.load(); }
    void setDelegate(LumerixHandler_Delegate* delegate) { delegate_.store(delegate); }
    bool autoDisconnectAfterResolve() const { return autoDisconnectAfterResolve_.load(); }
    void setAutoDisconnectAfterResolve(bool v) { autoDisconnectAfterResolve_.store(v); }
    bool continueScanAfterConnect() const { return continueScanAfterConnect_.load(); }
    void setContinueScanAfterConnect(bool v) { continueScanAfterConnect_.store(v); }
    const Clock& clock() const { return *env_.clock; }

private:
    void evaluateAdvertisement(const BlePeripheralRef& peripheral, const AdvertisementData& data,
                               double rssi);
    void startScanning(BleCentral& central);  // scan with duplicates, then schedule the next rescan
    void scheduleRescan();
    void cancelRescan();
    // Evaluation queue only. Removes the table entry under key when it is `item` (any item when
    // null), stops its decay timer and tells the delegate.
    void dropItem(const QString& key, const QVLumerixItemRef& item);
    // Moves the weakest entry, neither closest nor connected, out of the table into `evicted`.
    void evictWeakestLocked(std::vector<QVLumerixItemRef>& evicted, const QVLumerixItemRef& closest,
                            const QVLumerixItemRef& connected);
    void itemsDropped(std::vector<QVLumerixItemRef> items);

    HandlerEnvironment env_;
    std::mutex itemLock_;
    std::unique_ptr<DispatchQueue> scanningQueue_;
    std::unique_ptr<DispatchQueue> evaluatingQueue_;
    std::unique_ptr<BleCentral> cbCMOwner_;
    // Read by callbacks on the scan queue while the destructor may be letting go of the central.
    std::atomic<BleCentral*> cbCM_{nullptr};
    QHash<QString, QVLumerixItemRef> discoveredDeviceInfo_;  // guarded by itemLock_
    // Every item this handler made, so teardown can stop their decay timers; guarded by itemLock_.
    std::vector<std::weak_ptr<QVLumerixItem>> createdItems_;
    size_t createdSweepAt_ = kMaxItems;  // createdItems_ drops expired entries when it reaches this
    std::atomic<bool> autoDisconnectAfterResolve_{true};
    std::atomic<LumerixHandler_Delegate*> delegate_{nullptr};
    std::atomic<int> mCurrentState_{0};
    std::atomic<bool> continueScanAfterConnect_{false};
    mutable std::mutex peerMutex_;  // guards connectedPeer_ and closestPeer_
    QVLumerixItemRef connectedPeer_;
    QVLumerixItemRef closestPeer_;
    std::atomic<bool> shutDown_{false};
    std::mutex rescanMutex_;
    TaskHandle rescanHandle_;
};

}  // namespace lumerix
