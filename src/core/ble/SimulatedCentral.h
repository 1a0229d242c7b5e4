#pragma once
// An in-process central that plays a scenario of receivers: each advertises, at its own interval,
// a real encrypted record made the way receivers make theirs, with a signal strength that may
// change over time; other devices can be mixed in. Timing uses the reporting queue's after() and
// clock, so the same scenario runs on virtual time in tests and on real time in the demo.
//
// Scenario times are milliseconds on the queue's monotonic clock, measured from the central's
// creation. A receiver advertises at appearAtMs, appearAtMs + intervalMs, ... while scanning is on
// and before leaveAtMs. A name longer than 16 UTF-8 bytes goes out as two segments, alternating
// per advertisement (segment 1 on even slots, segment 2 on odd ones).
//
// Thread safety: every public member may be called from any thread, also from within a callback;
// delegate callbacks run on the reporting queue only, and destruction waits for a callback that is
// running.
#include <QByteArray>
#include <QString>
#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "ble/AdvertisementTrace.h"
#include "ble/BleCentral.h"

namespace lumerix {

struct SimulatedReceiver {
    QString name;
    std::array<uint8_t, 4> ipv4{10, 0, 0, 1};
    uint8_t code1 = 12;
    uint8_t code2 = 34;
    // RSSI in dBm: rssiFunction when set, else rssiSequence cycled per advertisement, else rssi.
    double rssi = -60.0;
    std::vector<double> rssiSequence;
    std::function<double(uint64_t advertisement, double elapsedMs)> rssiFunction;
    double intervalMs = 100.0;
    double appearAtMs = 0.0;
    std::optional<double> leaveAtMs;
    // Empty: a stable identifier derived from the receiver's position in the scenario.
    QString identifier;
    // Another local name (or none) makes a device that is not a receiver.
    std::optional<QString> localName = QStringLiteral("LX");
    // Raw manufacturer data sent instead of the encrypted record (devices of other makers).
    std::optional<QByteArray> manufacturerDataOverride;
    uint16_t companyId = 0xFFFF;

    double rssiAt(uint64_t advertisement, double elapsedMs) const;
    // A nearby device that is not a receiver.
    static SimulatedReceiver otherDevice(const QString& localName, double rssi, double intervalMs = 200.0);
};

struct SimulatedScenario {
    std::vector<SimulatedReceiver> receivers;
    // Recorded advertisements, played once each at their offsets, counted from the first scan
    // start (recording starts about when scanning does); a scan started later skips what is past.
    std::vector<TracedAdvertisement> trace;
    // A few meeting-room receivers at varying strength, one with a two-segment name, plus a
    // device that is not a receiver.
    static SimulatedScenario demo();
};

class SimulatedCentral final : public BleCentral {
public:
    SimulatedCentral(BleCentralDelegate* delegate, DispatchQueue* queue, SimulatedScenario scenario,
                     int initialState = BleStatePoweredOn);
    ~SimulatedCentral() override;

    int state() const override;
    void scanForPeripherals(bool allowDuplicates) override;
    void stopScan() override;
    // Connections succeed at once (reported on the queue); there are no GATT services.
    void connectPeripheral(const BlePeripheralRef& peripheral) override;
    void cancelPeripheralConnection(const BlePeripheralRef& peripheral) override;

    // Controls for tests and the demo.
    // Changes the adapter state and reports it; leaving powered-on ends the scan, as an adapter does.
    void setState(int state);
    // Reports one advertisement from the device with this identifier, as if heard now.
    void injectAdvertisement(const QString& identifier, const AdvertisementData& data, double rssi);
    bool isScanning() const;
    int scanStartCount() const;
    int scanStopCount() const;
    uint64_t advertisementCount() const;  // advertisements reported so far
    std::vector<QString> cancelledConnections() const;
    // The peripheral object of a scenario receiver or an injected device (made on first use).
    BlePeripheralRef peripheral(const QString& identifier);
    // The identifier a receiver without one gets: 00000000-0000-0000-0000-00000000XXXX.
    static QString identifierForIndex(size_t index);

private:
    struct Core;
    std::shared_ptr<Core> core_;
};

BleCentralFactory simulatedCentralFactory(SimulatedScenario scenario, int initialState = BleStatePoweredOn);

}  // namespace lumerix
