#pragma once
// The older connect-and-read reader: scans for receivers, connects to each new one in turn, collects
// its connection information from characteristics 0x5880..0x588F, decodes it and keeps it in a
// lookup table. Nothing in the application creates it; it stands beside QVLumerixHandler as a
// complete alternative reader.
//
// Threads: the central's callbacks and the two timers (8-second connect time-out, 6-second alive
// check) run on `queue`; the 8-second reader cycle is timed on `readerQueue` and hands each turn to
// `queue`. Reader state is guarded by one lock and the wait list by its own.
#include <QByteArray>
#include <QList>
#include <QString>
#include <QVariantMap>
#include <memory>
#include <mutex>
#include <optional>

#include "ble/BleCentral.h"
#include "dispatch/DispatchQueue.h"
#include "legacy/BeaconInfo.h"
#include "legacy/SharvaneInfo.h"

namespace lumerix {

struct CLumerixEnvironment {
    std::shared_ptr<Clock> clock = systemClock();
    // Central callbacks and timers; must outlive the reader.
    DispatchQueue* queue = nullptr;
    // Times the periodic reader; must outlive the reader.
    DispatchQueue* readerQueue = nullptr;
    BleCentralFactory makeCentral;
};

class CLumerix final : public BleCentralDelegate,
                       public BlePeripheralDelegate,
                       public std::enable_shared_from_this<CLumerix> {
public:
    static constexpr double kConnectTimeoutSeconds = 8.0;
    static constexpr double kAliveCheckSeconds = 6.0;
    static constexpr double kReaderIntervalSeconds = 8.0;
    static constexpr double kBeaconAliveSeconds = 20.0;
    static constexpr double kLookupFreshSeconds = 300.0;
    static constexpr size_t kConnectionInfoSize = 1024;
    static constexpr int kValueBytesUsed = 64;
    static constexpr int kFieldBufferSize = 64;

    // Creates the central and starts the alive check and the reader.
    static std::shared_ptr<CLumerix> create(CLumerixEnvironment env);
    explicit CLumerix(CLumerixEnvironment env);
    ~CLumerix() override;
    CLumerix(const CLumerix&) = delete;
    CLumerix& operator=(const CLumerix&) = delete;

    BleCentral* cbCM() const { return cbCM_.get(); }

    void Connect();
    void Disconnect();
    void OnConnectTimerOut();
    void ParsecollectData();
    void CheckLumerixAlivedTimer();
    // One turn of the reader: disconnect, take the first waiting beacon and connect to it.
    void GetSharvaneDataThread();

    // BleCentralDelegate.
    void centralManagerDidUpdateState(int state) override;
    void centralManagerDidDiscoverPeripheral(const BlePeripheralRef& peripheral,
                                             const AdvertisementData& advertisementData,
                                             double rssi) override;
    void centralManagerDidConnectPeripheral(const BlePeripheralRef& peripheral) override;
    void centralManagerDidFailToConnectPeripheral(const BlePeripheralRef& peripheral,
                                                  const std::optional<BleError>& error) override;
    void centralManagerDidDisconnectPeripheral(const BlePeripheralRef& peripheral,
                                               const std::optional<BleError>& error) override;
    // BlePeripheralDelegate.
    void peripheralDidDiscoverServices(BlePeripheral& peripheral,
                                       const std::optional<BleError>& error) override;
    void peripheralDidDiscoverCharacteristicsForService(BlePeripheral& peripheral,
                                                        const BleServiceRef& service,
                                                        const std::optional<BleError>& error) override;
    void peripheralDidUpdateValueForCharacteristic(BlePeripheral& peripheral,
                                                   const BleCharacteristicRef& characteristic,
                                                   const std::optional<BleError>& error) override;

    // Snapshots for diagnostics and tests.
    QList<std::shared_ptr<SharvaneInfo>> lookupTable() const;
    QList<std::shared_ptr<BeaconInfo>> livedBeacons() const;
    QList<BlePeripheralRef> waitingPeripherals() const;
    BlePeripheralRef currentPeripheral() const;
    QVariantMap collectedValues() const;

private:
    double nowSeconds() const { return env_.clock->nowMs() / 1000.0; }
    void armAliveCheck();
    void armReader();
    void ConnectLocked();
    void DisconnectLocked();
    void ParsecollectDataLocked();
    std::shared_ptr<SharvaneInfo> lookupLocked(const QString& identifier) const;
    bool isWaiting(const QString& identifier) const;

    CLumerixEnvironment env_;
    std::unique_ptr<BleCentral> cbCM_;

    mutable std::recursive_mutex mutex_;  // everything below except the wait list
    QList<std::shared_ptr<BeaconInfo>> m_pLivedBeaconArray;
    QList<std::shared_ptr<SharvaneInfo>> m_pLookupTable;
    BlePeripheralRef m_pCurrentConnectPeripheral;
    QVariantMap m_pDictCollectData;
    unsigned char m_szConnectionInfo[kConnectionInfoSize] = {};
    unsigned int m_uiOffsetOfConnectionInfo = 0;
    unsigned int m_uiCountsOfCharacteristic = 0;
    TaskHandle connectTimer_;
    TaskHandle aliveTimer_;
    TaskHandle readerTimer_;

    mutable std::mutex waitMutex_;
    QList<BlePeripheralRef> m_pWaitForConnectPeripheral;
};

}  // namespace lumerix
