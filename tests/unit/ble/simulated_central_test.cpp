// The simulated central plays its scenario on the queue's clock: timing, segments, RSSI, state.
#include <gtest/gtest.h>

#include <QByteArray>

#include "ble/SimulatedCentral.h"
#include "dispatch/ManualQueue.h"
#include "receiver/DesCfb.h"
#include "receiver/LumerixKeys.h"

namespace lumerix {
namespace {

struct Heard {
    double atMs;
    QString id;
    AdvertisementData data;
    double rssi;
};

class Listener final : public BleCentralDelegate {
public:
    explicit Listener(const Clock& clock) : clock_(clock) {}
    void centralManagerDidUpdateState(int state) override { states.push_back(state); }
    void centralManagerDidDiscoverPeripheral(const BlePeripheralRef& p, const AdvertisementData& data,
                                             double rssi) override {
        EXPECT_EQ(DispatchQueue::current()->label(), "scan");
        heard.push_back({clock_.monotonicMs(), p->identifier(), data, rssi});
    }
    std::vector<Heard> from(const QString& id) const {
        std::vector<Heard> out;
        for (const auto& h : heard)
            if (h.id == id) out.push_back(h);
        return out;
    }
    std::vector<int> states;
    std::vector<Heard> heard;

private:
    const Clock& clock_;
};

QByteArray plaintextOf(const QByteArray& record) {
    QByteArray plain(record.size() - 3, '\0');
    DESDecrypt(kLumerixAdvertisementKey, reinterpret_cast<const uint8_t*>(record.constData()) + 3,
               static_cast<int32_t>(plain.size()), reinterpret_cast<uint8_t*>(plain.data()));
    return plain;
}

struct Rig {
    explicit Rig(SimulatedScenario scenario, int state = BleStatePoweredOn)
        : central(&listener, &queue, std::move(scenario), state) {
        time.runUntilIdle();
    }
    VirtualTime time;
    ManualQueue queue{time, "scan"};
    Listener listener{time};
    SimulatedCentral central;
};

TEST(SimulatedCentral, PlaysTheScenarioOnQueueTime) {
    SimulatedReceiver a;  // heard at 250, 350, 450, 550; gone at 650
    a.name = QStringLiteral("Room A");
    a.ipv4 = {10, 0, 0, 5};
    a.intervalMs = 100;
    a.appearAtMs = 250;
    a.leaveAtMs = 650;
    a.rssiSequence = {-50, -60, -70};
    a.companyId = 0x1234;
    SimulatedReceiver b;  // two segments, every 300 ms
    b.name = QStringLiteral("ConferenceRoom-1North");
    b.intervalMs = 300;
    b.rssiFunction = [](uint64_t n, double t) { return -40.0 - static_cast<double>(n) - t / 1000.0; };
    SimulatedScenario s;
    s.receivers = {a, b, SimulatedReceiver::otherDevice(QStringLiteral("Pen"), -30, 500)};

    Rig rig(s);
    EXPECT_EQ(rig.listener.states, std::vector<int>{BleStatePoweredOn});
    rig.central.scanForPeripherals(true);
    rig.time.advance(1000);
    const auto heardA = rig.listener.from(SimulatedCentral::identifierForIndex(0));
    ASSERT_EQ(heardA.size(), 4u);
    const double rssis[] = {-50, -60, -70, -50};
    for (size_t i = 0; i < heardA.size(); ++i) {
        EXPECT_EQ(heardA[i].atMs, 250.0 + 100.0 * static_cast<double>(i));
        EXPECT_EQ(heardA[i].rssi, rssis[i]);
    }
    const QByteArray recA = *heardA[0].data.manufacturerData;
    EXPECT_EQ(recA.left(3), QByteArray::fromHex("341211"));
    EXPECT_EQ(plaintextOf(recA), QByteArray::fromHex("0a0000050c22") + QByteArray("Room A"));

    // Restarted mid-cycle: B picks up at its next slot, segments alternating with the slot.
    rig.central.stopScan();
    rig.listener.heard.clear();
    rig.time.advance(5000);
    EXPECT_TRUE(rig.listener.heard.empty());
    rig.central.scanForPeripherals(true);  // at 6000
    rig.time.advance(1000);
    const auto heardB = rig.listener.from(SimulatedCentral::identifierForIndex(1));
    ASSERT_EQ(heardB.size(), 4u);  // 6000, 6300, 6600, 6900
    EXPECT_EQ(heardB[1].rssi, -40.0 - 21 - 6.3);
    for (const auto& h : heardB) {
        const QByteArray& rec = *h.data.manufacturerData;
        const bool even = static_cast<int>(h.atMs / 300) % 2 == 0;
        EXPECT_EQ(static_cast<uint8_t>(rec[2]), even ? 0x21 : 0x22);
        EXPECT_EQ(plaintextOf(rec).mid(6), even ? QByteArray("ConferenceRoom-1") : QByteArray("North"));
    }
    const auto heardPen = rig.listener.from(SimulatedCentral::identifierForIndex(2));
    ASSERT_EQ(heardPen.size(), 3u);  // 6000, 6500, 7000
    EXPECT_EQ(heardPen[0].data.localName, QStringLiteral("Pen"));
    EXPECT_TRUE(rig.listener.from(SimulatedCentral::identifierForIndex(0)).empty());
}

TEST(SimulatedCentral, StateAndDuplicates) {
    SimulatedReceiver a;
    a.name = QStringLiteral("Room A");
    a.intervalMs = 100;
    SimulatedScenario s;
    s.receivers = {a};
    Rig rig(s, BleStatePoweredOff);
    rig.central.scanForPeripherals(true);
    rig.time.advance(500);
    EXPECT_TRUE(rig.listener.heard.empty()) << "no scan while powered off";

    rig.central.setState(BleStatePoweredOn);
    rig.central.scanForPeripherals(false);
    rig.time.advance(1000);
    EXPECT_EQ(rig.listener.heard.size(), 1u) << "without duplicates a device is heard once per scan";

    rig.central.scanForPeripherals(true);
    rig.time.advance(1000);
    EXPECT_EQ(rig.listener.heard.size(), 12u);

    rig.central.setState(BleStatePoweredOff);
    rig.time.advance(1000);
    EXPECT_FALSE(rig.central.isScanning());
    EXPECT_EQ(rig.listener.heard.size(), 12u);
    EXPECT_EQ(rig.listener.states,
              (std::vector<int>{BleStatePoweredOff, BleStatePoweredOn, BleStatePoweredOff}));
    EXPECT_EQ(rig.central.state(), BleStatePoweredOff);
}

}  // namespace
}  // namespace lumerix
