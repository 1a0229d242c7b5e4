#pragma once
// One discovered receiver: its peripheral, signal-strength bookkeeping and decay timer, recent
// advertisements, and the connection details decoded from its advertisement or read over GATT.
//
// Thread safety: the item is written on the handler's queues and read from the main thread; every
// field is guarded by one internal mutex and the records are copied whole under it.
#include <QByteArray>
#include <QHash>
#include <QString>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "ble/AdvertisementData.h"
#include "ble/BlePeripheral.h"
#include "dispatch/Clock.h"
#include "dispatch/DispatchTimer.h"
#include "dispatch/QVQueue.h"
#include "receiver/LumerixRecords.h"

namespace lumerix {

class QVLumerixItem;

class QVLumerixItemDelegate {
public:
    virtual ~QVLumerixItemDelegate() = default;
    virtual void lumerixItemDisappeared(QVLumerixItem& item) {}
};

class QVLumerixItem : public std::enable_shared_from_this<QVLumerixItem> {
public:
    static constexpr uint64_t kRssiQueueCapacity = 6;
    static constexpr uint64_t kAdvertisedDataCapacity = 10;
    static constexpr uint64_t kDecayIntervalSeconds = 3;

    // initWithPeripheral: keeps the peripheral, then resetAllValues.
    static std::shared_ptr<QVLumerixItem> initWithPeripheral(BlePeripheralRef peripheral,
                                                             std::shared_ptr<Clock> clock = systemClock());
    QVLumerixItem(BlePeripheralRef peripheral, std::shared_ptr<Clock> clock);
    ~QVLumerixItem();
    QVLumerixItem(const QVLumerixItem&) = delete;
    QVLumerixItem& operator=(const QVLumerixItem&) = delete;

    BlePeripheralRef peripheral() const { return peripheral_; }
    void setDelegate(QVLumerixItemDelegate* delegate);
    QVLumerixItemDelegate* delegate() const;
    void setDecayingQueue(DispatchQueue* queue);
    DispatchQueue* decayingQueue() const;

    // Sample intake.
    void discoveredRssi(double rssi);
    void discoveredRssi(double rssi, const AdvertisementData& advertisementData);
    void addNewRssi(double rssi);
    void calculateAverage();

    // Decay.
    void startDecaying();
    void decayItemIfNotReceivingRssi();

    bool isValid() const;
    // The time of the last accepted sample (ms since 1970), not a duration.
    std::optional<double> aliveDuration() const;
    // The peripheral identifier's full UUID string; none without a peripheral.
    std::optional<QString> shortenedUUID() const;

    void clearAdvertisementDatas();
    void clearRssiDatas();
    void resetAllValues();

    // GATT accumulation: true when the last data characteristic has arrived.
    bool updateCharacteristic(const BleCharacteristic& characteristic);

    QString toString() const;
    QString getLogString() const;

    // Properties.
    double aveRssi() const;
    double rssiSum() const;
    void setRssiSum(double v);
    std::shared_ptr<QVQueue<double>> rssiQueue() const;
    void setRssiQueue(std::shared_ptr<QVQueue<double>> v);
    uint64_t rssiTotalCount() const;
    void setRssiTotalCount(uint64_t v);
    uint64_t validRssiTotalCount() const;
    void setValidRssiTotalCount(uint64_t v);
    double discoveredTimeStamp() const;
    void setDiscoveredTimeStamp(double v);
    double aliveTimeStamp() const;
    void setAliveTimeStamp(double v);
    double initialTimeStamp() const;
    void setInitialTimeStamp(double v);
    DispatchTimerRef decayingGCDTimer() const;
    void setDecayingGCDTimer(DispatchTimerRef v);
    std::shared_ptr<QVQueue<AdvertisementData>> advertisedDataList() const;
    void setAdvertisedDataList(std::shared_ptr<QVQueue<AdvertisementData>> v);
    std::optional<QByteArray> advertisedData() const;
    void setAdvertisedData(std::optional<QByteArray> v);
    QByteArray dataBuffer() const;
    void setDataBuffer(QByteArray v);
    // Characteristic UUID string -> value taken into dataBuffer.
    QHash<QString, QByteArray> characteristicInfo() const;
    void setCharacteristicInfo(QHash<QString, QByteArray> v);
    int8_t hasAllCharacteristics() const;
    void setHasAllCharacteristics(int8_t v);
    bool hasResolved() const;
    void setHasResolved(bool v);
    LumerixHeaderStruct lumerixHeader() const;
    void setLumerixHeader(const LumerixHeaderStruct& v);
    LumerixStruct lumerix() const;
    void setLumerix(const LumerixStruct& v);
    LumerixStructV2 lumerixV2() const;
    void setLumerixV2(const LumerixStructV2& v);
    std::optional<QString> ipAddress() const;
    void setIpAddress(std::optional<QString> v);
    std::optional<QString> loginCode() const;
    void setLoginCode(std::optional<QString> v);
    std::optional<QString> wifiSSID() const;
    void setWifiSSID(std::optional<QString> v);
    std::optional<QString> receiverName() const;
    void setReceiverName(std::optional<QString> v);
    // The three decoded details in one read, for the menu that lists every receiver per refresh.
    struct ConnectionDetails {
        std::optional<QString> ipAddress;
        std::optional<QString> loginCode;
        std::optional<QString> receiverName;
    };
    ConnectionDetails connectionDetails() const;
    // Moves whenever one of the three details changes value, so that a reader holding an earlier
    // copy can tell without reading them again.
    uint64_t detailsRevision() const { return detailsRevision_.load(std::memory_order_acquire); }

    const Clock& clock() const { return *clock_; }

    // The manufacturer record decoded last. Read and written by the decoder on the evaluation
    // queue only, so that a receiver repeating its record costs no decryption.
    const QByteArray& lastDecodedRecord() const { return lastDecodedRecord_; }
    void setLastDecodedRecord(const QByteArray& record) { lastDecodedRecord_ = record; }

private:
    void cancelTimerLocked(bool clearReference);

    const BlePeripheralRef peripheral_;
    const std::shared_ptr<Clock> clock_;
    mutable std::recursive_mutex mutex_;
    QVLumerixItemDelegate* delegate_ = nullptr;
    DispatchQueue* decayingQueue_ = nullptr;
    // Written under mutex_, read without it: the menu re-orders by it on every advertisement.
    std::atomic<double> aveRssi_{0};
    double rssiSum_ = 0;
    std::shared_ptr<QVQueue<double>> rssiQueue_;
    uint64_t rssiTotalCount_ = 0;
    uint64_t validRssiTotalCount_ = 0;
    double discoveredTimeStamp_ = 0;
    double aliveTimeStamp_ = 0;
    double initialTimeStamp_ = 0;
    DispatchTimerRef decayingGCDTimer_;
    std::shared_ptr<QVQueue<AdvertisementData>> advertisedDataList_;
    std::optional<QByteArray> advertisedData_;
    QByteArray dataBuffer_;
    QHash<QString, QByteArray> characteristicInfo_;
    int8_t hasAllCharacteristics_ = 0;
    bool hasResolved_ = false;
    LumerixHeaderStruct lumerixHeader_{};
    LumerixStruct lumerix_{};
    LumerixStructV2 lumerixV2_{};
    std::optional<QString> ipAddress_;
    std::optional<QString> loginCode_;
    std::optional<QString> wifiSSID_;
    std::optional<QString> receiverName_;
    std::atomic<uint64_t> detailsRevision_{0};
    QByteArray lastDecodedRecord_;
};
using QVLumerixItemRef = std::shared_ptr<QVLumerixItem>;

}  // namespace lumerix
