// The scanning handler on virtual time: the "LX" filter, the item table, the closest-item rule,
// start/stop and the 15 s rescan cycle, state reports, and the queue of each callback.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "handler_fixture.h"

namespace lumerix::test {
namespace {

const QByteArray kRoomA = makeLumerixRecord(kSegmentSingle, {10, 0, 0, 5}, 12, 34, "Room A");

TEST(HandlerFilter, OnlyTheExactLocalNameLX) {
    struct Case {
        std::optional<QString> name;
        bool accepted;
    };
    const std::vector<Case> cases{{QStringLiteral("LX"), true},
                                  {QStringLiteral("lx"), false},
                                  {QStringLiteral("Lx"), false},
                                  {QStringLiteral("LXX"), false},
                                  {QStringLiteral("LX "), false},
                                  {QStringLiteral("XLX"), false},
                                  {QString(), false},
                                  {std::nullopt, false}};
    HandlerHarness h;
    for (size_t i = 0; i < cases.size(); ++i) {
        h.delegate.clear();
        const QString id = deviceId(static_cast<int>(i));
        h.advertise(id, -50, kRoomA, cases[i].name);
        EXPECT_EQ(h.item(id) != nullptr, cases[i].accepted) << i;
        EXPECT_EQ(h.delegate.events("discover").size(), cases[i].accepted ? 1u : 0u) << i;
    }
    EXPECT_EQ(h.handler->discoveredDeviceInfo().size(), 1);
}

TEST(HandlerFilter, NoManufacturerDataStillMakesAnItem) {
    HandlerHarness h;
    h.advertise(deviceId(1), -55);
    auto item = h.item(deviceId(1));
    ASSERT_TRUE(item);
    EXPECT_FALSE(item->hasResolved());
    EXPECT_FALSE(item->ipAddress().has_value());
    EXPECT_EQ(h.delegate.events("discover").size(), 1u);
    EXPECT_EQ(h.delegate.events("closest").size(), 1u);
    EXPECT_TRUE(h.delegate.events("status").empty());
}

TEST(HandlerTable, OneItemPerIdentifierKeepingTheLastTenAdvertisements) {
    HandlerHarness h;
    for (int i = 0; i < 12; ++i) {
        const QByteArray rec =
            makeLumerixRecord(kSegmentSingle, {10, 0, 0, static_cast<uint8_t>(i)}, 1, 2, "Room");
        h.advertise(deviceId(7), -40 - i, rec);
    }
    h.advertise(deviceId(7), 127, kRoomA);  // "no reading": kept as an advertisement, not as a sample

    ASSERT_EQ(h.handler->discoveredDeviceInfo().size(), 1);
    auto item = h.item(deviceId(7));
    EXPECT_EQ(item->advertisedDataList()->count(), 10u);
    EXPECT_EQ(item->advertisedDataList()->dump().back().manufacturerData, kRoomA);
    EXPECT_EQ(item->aveRssi(), -51.0);
    EXPECT_EQ(item->ipAddress().value_or(QString()), QStringLiteral("10.0.0.5"));
    EXPECT_EQ(h.delegate.events("discover").size(), 13u);
    for (const auto& e : h.delegate.events("discover")) EXPECT_EQ(e.item, item);
    EXPECT_EQ(item->decayingQueue(), h.handler->evaluatingQueue());
}

TEST(HandlerTable, ItemAtAddress) {
    HandlerHarness h;
    h.advertise(deviceId(1), -50, makeLumerixRecord(kSegmentSingle, {10, 0, 0, 5}, 1, 2, "A"));
    h.advertise(deviceId(2), -50, makeLumerixRecord(kSegmentSingle, {10, 0, 0, 6}, 1, 2, "B"));
    EXPECT_EQ(h.handler->itemAtAddress(QStringLiteral("10.0.0.6")), h.item(deviceId(2)));
    EXPECT_EQ(h.handler->itemAtAddress(QStringLiteral("10.0.0.5")), h.item(deviceId(1)));
    EXPECT_EQ(h.handler->itemAtAddress(QStringLiteral("10.0.0.7")), nullptr);
    EXPECT_EQ(h.handler->itemAtAddress(QString()), nullptr);
    h.handler->setItem(nullptr, deviceId(2));
    EXPECT_EQ(h.handler->itemAtAddress(QStringLiteral("10.0.0.6")), nullptr);
}

// Each step is one advertisement (or, for NaN, a sample set directly and evaluated).
struct Step {
    int device;
    double rssi;
};
struct ClosestCase {
    const char* label;
    std::vector<Step> steps;
    std::vector<int> announced;  // devices announced as closest, in order
};

void PrintTo(const ClosestCase& c, std::ostream* os) { *os << c.label; }

class ClosestRule : public ::testing::TestWithParam<ClosestCase> {};

TEST_P(ClosestRule, Announcements) {
    HandlerHarness h;
    for (const Step& s : GetParam().steps) {
        if (std::isnan(s.rssi)) {
            auto item = h.item(deviceId(s.device));
            ASSERT_TRUE(item) << "NaN steps need a known device";
            item->addNewRssi(s.rssi);
            h.handler->compareClosestItemWithItem(item);
        } else {
            h.advertise(deviceId(s.device), s.rssi);
        }
    }
    std::vector<int> announced;
    for (const auto& e : h.delegate.events("closest")) {
        for (int d = 0; d < 10; ++d)
            if (e.item == h.item(deviceId(d))) announced.push_back(d);
        EXPECT_EQ(e.queue, QVLumerixHandler::kEvaluateQueueLabel);
    }
    EXPECT_EQ(announced, GetParam().announced);
    if (!announced.empty()) {
        EXPECT_EQ(h.handler->closestPeer(), h.item(deviceId(announced.back())));
    }
}

const double kNaN = std::numeric_limits<double>::quiet_NaN();

INSTANTIATE_TEST_SUITE_P(
    Handler, ClosestRule,
    ::testing::Values(
        ClosestCase{"FirstValid", {{1, -80}}, {1}},
        ClosestCase{"TieGoesToNewcomer", {{1, -60}, {2, -60}}, {1, 2}},
        ClosestCase{"WeakerLoses", {{1, -60}, {2, -61}}, {1}},
        ClosestCase{"StrongerWins", {{1, -60}, {2, -59}}, {1, 2}},
        ClosestCase{"SameItemNotAgain", {{1, -60}, {1, -40}, {1, -90}}, {1}},
        ClosestCase{"TakingTurns", {{1, -60}, {2, -60}, {1, -60}, {2, -60}}, {1, 2, 1, 2}},
        ClosestCase{"InvalidNeverClosest", {{1, 0}, {2, -101}, {3, 127}, {4, -100}}, {4}},
        ClosestCase{"NaNCandidateIsInvalid", {{1, -60}, {2, -50}, {2, kNaN}, {3, -70}}, {1, 2, 3}},
        ClosestCase{"InvalidClosestIsReplaced", {{1, -50}, {2, -80}, {1, 0}, {2, -80}}, {1, 2}}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(ClosestRule, ResetAtEveryScanStartAndLiveStateCheck) {
    HandlerHarness h;
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    h.advertise(deviceId(1), -40);
    EXPECT_TRUE(h.handler->hasClosestItem());
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    EXPECT_EQ(h.handler->closestPeer(), nullptr);
    EXPECT_FALSE(h.handler->hasClosestItem());
    h.advertise(deviceId(2), -90);
    EXPECT_EQ(h.handler->closestPeer(), h.item(deviceId(2)));

    // The live adapter state counts, before the state report has even been delivered.
    h.central().setState(BleStatePoweredOff);
    EXPECT_FALSE(h.handler->hasClosestItem());
    EXPECT_EQ(h.handler->closestPeer(), h.item(deviceId(2)));
    h.run();
}

TEST(HandlerScan, StartAndStop) {
    struct Case {
        const char* label;
        int state;
        bool start;
        bool result;
        bool tableKept;
        bool scanning;
    };
    const std::vector<Case> cases{{"OffStart", BleStatePoweredOff, true, false, true, false},
                                  {"OffStop", BleStatePoweredOff, false, false, true, false},
                                  {"UnauthorizedStart", BleStateUnauthorized, true, false, true, false},
                                  {"UnknownStart", BleStateUnknown, true, false, true, false},
                                  {"OnStart", BleStatePoweredOn, true, true, true, true},
                                  {"OnStop", BleStatePoweredOn, false, true, false, false}};
    for (const Case& c : cases) {
        HandlerHarness h;
        h.advertise(deviceId(1), -50, kRoomA);
        h.central().setState(c.state);
        h.run();
        EXPECT_EQ(h.handler->scanForLumerixService(c.start), c.result) << c.label;
        EXPECT_EQ(h.handler->discoveredDeviceInfo().size(), c.tableKept ? 1 : 0) << c.label;
        EXPECT_EQ(h.central().isScanning(), c.scanning) << c.label;
        if (!c.tableKept) {
            EXPECT_EQ(h.handler->closestPeer(), nullptr) << c.label;
        }
    }
}

TEST(HandlerScan, RescanEveryFifteenSecondsUntilPowerGoesOff) {
    HandlerHarness h;
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    EXPECT_EQ(h.central().scanStartCount(), 1);
    h.advance(14999);
    EXPECT_EQ(h.central().scanStartCount(), 1);
    h.advance(1);
    EXPECT_EQ(h.central().scanStartCount(), 2);
    EXPECT_EQ(h.central().scanStopCount(), 1);
    h.advance(15000);
    EXPECT_EQ(h.central().scanStartCount(), 3);

    // A restart of scanning replaces the pending rescan instead of adding one.
    h.advance(5000);
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    h.advance(10000);
    EXPECT_EQ(h.central().scanStartCount(), 4);
    h.advance(5000);
    EXPECT_EQ(h.central().scanStartCount(), 5);

    // Power off: the next rescan finds the state wrong and the cycle ends.
    h.central().setState(BleStatePoweredOff);
    h.advance(60000);
    EXPECT_EQ(h.central().scanStartCount(), 5);
    h.central().setState(BleStatePoweredOn);
    h.advance(60000);
    EXPECT_EQ(h.central().scanStartCount(), 5);

    // Stopping cancels the pending rescan.
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    EXPECT_EQ(h.central().scanStartCount(), 6);
    ASSERT_TRUE(h.handler->scanForLumerixService(false));
    h.advance(60000);
    EXPECT_EQ(h.central().scanStartCount(), 6);
    EXPECT_FALSE(h.central().isScanning());
}

TEST(HandlerScan, ScenarioReceiversFlowThroughToTheDelegate) {
    SimulatedScenario scenario;
    SimulatedReceiver near;
    near.name = QStringLiteral("Near Room");
    near.rssi = -45;
    near.intervalMs = 100;
    SimulatedReceiver far;
    far.name = QStringLiteral("A Rather Long Room Name");
    far.ipv4 = {10, 1, 2, 3};
    far.rssi = -75;
    far.intervalMs = 250;
    scenario.receivers = {near, far, SimulatedReceiver::otherDevice(QStringLiteral("Watch"), -30)};
    HandlerHarness h(scenario);
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    h.advance(1000);
    const auto table = h.handler->discoveredDeviceInfo();
    ASSERT_EQ(table.size(), 2);
    EXPECT_EQ(h.item(deviceId(0))->receiverName().value_or(QString()), QStringLiteral("Near Room"));
    EXPECT_EQ(h.item(deviceId(1))->receiverName().value_or(QString()),
              QStringLiteral("A Rather Long Room Name"));
    EXPECT_EQ(h.item(deviceId(1))->ipAddress().value_or(QString()), QStringLiteral("10.1.2.3"));
    EXPECT_EQ(h.handler->closestPeer(), h.item(deviceId(0)));
    EXPECT_EQ(h.delegate.values("status"), (std::vector<int>{2, 2, 3}));
}

TEST(HandlerNotifications, StateReportsAreDeduplicated) {
    HandlerHarness h(SimulatedScenario{}, BleStatePoweredOff);
    for (int s : {4, 4, 5, 5, 4, 1, 1, 5}) {
        h.central().setState(s);
        h.run();
    }
    EXPECT_EQ(h.delegate.values("state"), (std::vector<int>{4, 5, 4, 1, 5}));
    EXPECT_EQ(h.handler->mCurrentState(), 5);
}

TEST(HandlerNotifications, EachCallbackArrivesOnItsQueue) {
    HandlerHarness h;
    h.advertise(deviceId(1), -50, kRoomA);
    h.central().setState(BleStatePoweredOff);
    h.handler->scanningQueue()->async([&] { h.handler->triggerOnError(kBleErrorConnectionFailed); });
    h.run();

    const std::map<std::string, std::string> expected{{"state", QVLumerixHandler::kScanQueueLabel},
                                                      {"discover", "main"},
                                                      {"closest", QVLumerixHandler::kEvaluateQueueLabel},
                                                      {"status", "main"},
                                                      {"error", QVLumerixHandler::kScanQueueLabel}};
    for (const auto& [kind, queue] : expected) {
        const auto events = h.delegate.events(kind);
        ASSERT_FALSE(events.empty()) << kind;
        for (const auto& e : events) EXPECT_EQ(e.queue, queue) << kind;
    }
    EXPECT_EQ(h.delegate.values("error"), std::vector<int>{kBleErrorConnectionFailed});
}

TEST(HandlerNotifications, MainThreadHopRunsInlineOnTheMainQueue) {
    HandlerHarness h;
    bool ranInline = false;
    h.main.async([&] {
        bool ran = false;
        h.handler->dispatchToMainThreadIfNeccessary([&] { ran = true; });
        ranInline = ran;
    });
    h.run();
    EXPECT_TRUE(ranInline);

    bool ran = false;
    h.handler->dispatchToMainThreadIfNeccessary([&] { ran = true; });
    EXPECT_FALSE(ran);
    h.run();
    EXPECT_TRUE(ran);
}

TEST(HandlerNotifications, DelegateIsReadWhenTheBlockRuns) {
    HandlerHarness h;
    h.advertise(deviceId(1), -50);
    h.delegate.clear();
    // Queued for the main queue while a delegate is set; gone by the time the blocks run.
    h.handler->triggerDidDiscoverItem(h.item(deviceId(1)));
    h.handler->triggerItem(h.item(deviceId(1)), LumerixItemUpdated);
    h.handler->setDelegate(nullptr);
    h.run();
    EXPECT_TRUE(h.delegate.events().empty());
}

TEST(HandlerLifetime, QueuedWorkDoesNotKeepTheHandlerAlive) {
    HandlerHarness h;
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    h.advertise(deviceId(1), -50, kRoomA);
    auto item = h.item(deviceId(1));
    std::weak_ptr<QVLumerixHandler> weak = h.handler;
    // Work in flight on every queue, then the last owner lets go.
    h.central().injectAdvertisement(deviceId(1), AdvertisementData{QStringLiteral("LX"), kRoomA}, -50);
    h.handler->setDelegate(nullptr);
    h.handler.reset();
    EXPECT_TRUE(weak.expired());
    h.advance(60000);
    // The item the shell may still hold no longer ticks on the vanished evaluation queue.
    EXPECT_EQ(item->decayingGCDTimer(), nullptr);
    EXPECT_EQ(item->decayingQueue(), nullptr);
}

TEST(HandlerLifetime, SharedHandlerIsMadeOnceFromTheSharedEnvironment) {
    // Process-wide like the instance itself, and made before it, so they go after it at exit.
    static const auto time = std::make_shared<VirtualTime>();
    static ManualQueue main(*time, "main");
    HandlerEnvironment env;
    env.clock = time;
    env.mainQueue = &main;
    env.makeQueue = [](const std::string& label) { return std::make_unique<ManualQueue>(*time, label); };
    env.makeCentral = simulatedCentralFactory({});
    QVLumerixHandler::setSharedEnvironment(env);
    auto shared = QVLumerixHandler::sharedHandler();
    ASSERT_TRUE(shared);
    EXPECT_EQ(QVLumerixHandler::sharedHandler(), shared);
    auto own = QVLumerixHandler::create(env);
    EXPECT_NE(own, shared);
    time->runUntilIdle();
    EXPECT_EQ(shared->mCurrentState(), BleStatePoweredOn);
    EXPECT_TRUE(shared->scanForLumerixService(true));
    EXPECT_TRUE(own->scanForLumerixService(true));
    EXPECT_TRUE(shared->scanForLumerixService(false));
}

TEST(HandlerLifetime, ConnectAndResolveOnlyDropsTheConnection) {
    HandlerHarness h;
    h.advertise(deviceId(1), -50, kRoomA);
    h.handler->resovleClosestLumerixItem();
    EXPECT_TRUE(h.central().cancelledConnections().empty());
    h.handler->triggerItem(h.item(deviceId(1)), LumerixItemConnected);
    h.handler->resovleClosestLumerixItem();
    EXPECT_EQ(h.central().cancelledConnections(), std::vector<QString>{deviceId(1)});
    h.handler->triggerItem(h.item(deviceId(1)), LumerixItemDisconnected);
    EXPECT_EQ(h.handler->connectedPeer(), nullptr);
    h.handler->clearScannedResult();
    EXPECT_EQ(h.central().cancelledConnections().size(), 1u);
    EXPECT_FALSE(QVLumerixHandler::requiresBLEConnection());
}

}  // namespace
}  // namespace lumerix::test
