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
    SimulatedReceiver a;
    a.name = QStringLiteral("Room A");
    a.ipv4 = {10, 0, 0, 5};
    a.intervalMs = 100;
    a.appearAtMs = 250;
    a.leaveAtMs = 650;
    a.rssiSequence = {-50, -60, -70};
    SimulatedReceiver b;
    b.name = QStringLiteral("ConferenceRoom-1North");
    b.intervalMs = 300;
    b.rssiFunction = [](uint64_t n, double t) { return -40.0 - static_cast<double>(n) - t / 1000.0; };
    SimulatedScenario s;
    s.receivers = {a, b, SimulatedReceiver::otherDevice(QStringLiteral("Pen"), -30, 500)};

    Rig rig(s);
    EXPECT_EQ(rig.listener.states, std::vector<int>{BleStatePoweredOn});
    rig.time.advance(1000);
    EXPECT_TRUE(rig.listener.heard.empty()) << "nothing is heard before scanning";

    rig.central.scanForPeripherals(true);  // at 1000: A has left, B is mid-cycle
    rig.time.advance(1000);
    EXPECT_TRUE(rig.listener.from(SimulatedCentral::identifierForIndex(0)).empty());
    const auto heardB = rig.listener.from(SimulatedCentral::identifierForIndex(1));
    ASSERT_EQ(heardB.size(), 3u);  // 1200, 1500, 1800
    EXPECT_EQ(heardB[0].atMs, 1200);
    EXPECT_EQ(heardB[0].rssi, -40.0 - 4 - 1.2);
    // Two segments alternate with the slot: even slots carry segment 1.
    for (const auto& h : heardB) {
        const QByteArray& rec = *h.data.manufacturerData;
        const int slot = static_cast<int>((h.atMs) / 300);
        EXPECT_EQ(static_cast<uint8_t>(rec[2]), slot % 2 == 0 ? 0x21 : 0x22);
        EXPECT_EQ(plaintextOf(rec).mid(6), slot % 2 == 0 ? QByteArray("ConferenceRoom-1") : QByteArray("North"));
        EXPECT_EQ(h.data.localName, QStringLiteral("LX"));
    }
    const auto heardPen = rig.listener.from(SimulatedCentral::identifierForIndex(2));
    ASSERT_EQ(heardPen.size(), 3u);  // 1000, 1500, 2000
    EXPECT_EQ(heardPen[0].data.localName, QStringLiteral("Pen"));

    rig.central.stopScan();
    rig.listener.heard.clear();
    rig.time.advance(5000);
    EXPECT_TRUE(rig.listener.heard.empty());
}

TEST(SimulatedCentral, SlotsFromAppearanceAndRecordContents) {
    SimulatedReceiver a;
    a.name = QStringLiteral("Room A");
    a.ipv4 = {10, 0, 0, 5};
    a.intervalMs = 100;
    a.appearAtMs = 250;
    a.leaveAtMs = 650;
    a.rssiSequence = {-50, -60, -70};
    a.companyId = 0x1234;
    SimulatedScenario s;
    s.receivers = {a};
    Rig rig(s);
    rig.central.scanForPeripherals(true);
    rig.time.advance(2000);
    const auto heard = rig.listener.heard;
    ASSERT_EQ(heard.size(), 4u);
    const double times[] = {250, 350, 450, 550};
    const double rssis[] = {-50, -60, -70, -50};
    for (size_t i = 0; i < heard.size(); ++i) {
        EXPECT_EQ(heard[i].atMs, times[i]);
        EXPECT_EQ(heard[i].rssi, rssis[i]);
    }
    const QByteArray rec = *heard[0].data.manufacturerData;
    EXPECT_EQ(rec.left(3), QByteArray::fromHex("341211"));
    EXPECT_EQ(plaintextOf(rec), QByteArray::fromHex("0a0000050c22") + QByteArray("Room A"));
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
    EXPECT_EQ(rig.listener.states, (std::vector<int>{BleStatePoweredOff, BleStatePoweredOn, BleStatePoweredOff}));
    EXPECT_EQ(rig.central.state(), BleStatePoweredOff);
}

TEST(SimulatedCentral, DemoScenarioIsPleasant) {
    const SimulatedScenario demo = SimulatedScenario::demo();
    int receivers = 0;
    bool longName = false;
    for (const auto& r : demo.receivers) {
        if (r.localName != QStringLiteral("LX")) continue;
        ++receivers;
        longName = longName || r.name.toUtf8().size() > 16;
    }
    EXPECT_GE(receivers, 3);
    EXPECT_LE(receivers, 4);
    EXPECT_TRUE(longName);
}

}  // namespace
}  // namespace lumerix
