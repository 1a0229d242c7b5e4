// The scanning handler on virtual time: the "LX" filter, the item table, the closest-item rule,
// start/stop and the 15 s rescan cycle, and the queue of each callback.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>

#include "handler_fixture.h"

namespace lumerix::test {
namespace {

const QByteArray kRoomA = makeLumerixRecord(kSegmentSingle, {10, 0, 0, 5}, 12, 34, "Room A");

TEST(HandlerFilter, OnlyTheExactLocalNameLX) {
    const std::vector<std::optional<QString>> refused{QStringLiteral("lx"), QStringLiteral("LXX"),
                                                      QStringLiteral("LX "), QString(), std::nullopt};
    HandlerHarness h;
    for (size_t i = 0; i < refused.size(); ++i)
        h.advertise(HandlerHarness::deviceId(static_cast<int>(i)), -50, kRoomA, refused[i]);
    EXPECT_TRUE(h.handler->discoveredDeviceInfo().isEmpty());
    EXPECT_TRUE(h.delegate.events("discover").empty());
    h.advertise(HandlerHarness::deviceId(9), -50, kRoomA);
    EXPECT_EQ(h.handler->discoveredDeviceInfo().size(), 1);
}

TEST(HandlerBatch, ABurstIsOneEvaluationTaskAndReachesTheDelegateCompleteAndInOrder) {
    // 10,000 advertisements from 50 devices, one in five not named "LX".
    HandlerHarness h;
    std::vector<BleDiscovery> burst;
    std::vector<QString> expected;
    for (int i = 0; i < 10000; ++i) {
        const int device = i % 50;
        const bool lx = i % 5 != 0;
        burst.push_back({h.central().peripheral(HandlerHarness::deviceId(device)),
                         AdvertisementData{lx ? QStringLiteral("LX") : QStringLiteral("Phone"), kRoomA},
                         -40.0 - (i % 50)});
        if (lx) expected.push_back(HandlerHarness::deviceId(device));
    }
    ASSERT_EQ(h.time->pendingCount(), 0u);
    h.handler->centralManagerDidDiscoverPeripherals(burst);
    EXPECT_EQ(h.time->pendingCount(), 1u);
    h.run();

    std::vector<QString> seen;
    for (const auto& e : h.delegate.events("discover")) {
        EXPECT_EQ(e.queue, "main");
        seen.push_back(e.item->peripheral()->identifier());
    }
    EXPECT_EQ(seen, expected);
}

TEST(HandlerTable, OneItemPerIdentifierKeepingTheLastTenAdvertisements) {
    HandlerHarness h;
    for (int i = 0; i < 12; ++i)
        h.advertise(HandlerHarness::deviceId(7), -40 - i,
                    makeLumerixRecord(kSegmentSingle, {10, 0, 0, static_cast<uint8_t>(i)}, 1, 2, "Room"));
    h.advertise(HandlerHarness::deviceId(7), kRssiNoReading,
                kRoomA);  // "no reading": kept as an advertisement, not as a sample

    ASSERT_EQ(h.handler->discoveredDeviceInfo().size(), 1);
    auto item = h.item(HandlerHarness::deviceId(7));
    EXPECT_EQ(item->advertisedDataList()->count(), 10u);
    EXPECT_EQ(item->aveRssi(), -51.0);
    EXPECT_EQ(item->ipAddress().value_or(QString()), QStringLiteral("10.0.0.5"));
    EXPECT_EQ(h.delegate.events("discover").size(), 13u);
    for (const auto& e : h.delegate.events("discover")) EXPECT_EQ(e.item, item);
    EXPECT_EQ(item->decayingQueue(), h.handler->evaluatingQueue());
}

TEST(ClosestRule, Announcements) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const struct {
        const char* label;
        std::vector<std::pair<int, double>> steps;  // device, RSSI of one advertisement
        std::vector<int> announced;                 // devices announced as closest, in order
    } cases[] = {
        {"tie goes to the newcomer", {{1, -60}, {2, -60}}, {1, 2}},
        {"weaker loses", {{1, -60}, {2, -61}}, {1}},
        {"same item is not announced again", {{1, -60}, {1, -40}, {1, -90}}, {1}},
        {"invalid is never closest", {{1, 0}, {2, -101}, {3, 127}, {4, -100}}, {4}},
        // NaN: set on a known device directly, then compared.
        {"NaN candidate is invalid", {{1, -60}, {2, -50}, {2, nan}, {3, -70}}, {1, 2, 3}},
        {"invalid closest is replaced", {{1, -50}, {2, -80}, {1, 0}, {2, -80}}, {1, 2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        HandlerHarness h;
        for (const auto& [device, rssi] : c.steps) {
            if (std::isnan(rssi)) {
                h.item(HandlerHarness::deviceId(device))->addNewRssi(rssi);
                h.handler->compareClosestItemWithItem(h.item(HandlerHarness::deviceId(device)));
            } else {
                h.advertise(HandlerHarness::deviceId(device), rssi);
            }
        }
        std::vector<int> announced;
        for (const auto& e : h.delegate.events("closest")) {
            for (int d = 0; d < 5; ++d)
                if (e.item == h.item(HandlerHarness::deviceId(d))) announced.push_back(d);
            EXPECT_EQ(e.queue, QVLumerixHandler::kEvaluateQueueLabel);
        }
        EXPECT_EQ(announced, c.announced);
    }
}

TEST(ClosestRule, NeedsPowerOnAndIsResetAtEveryScanStart) {
    HandlerHarness h;
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    h.advertise(HandlerHarness::deviceId(1), -40);
    EXPECT_TRUE(h.handler->hasClosestItem());
    h.central().setState(BleStatePoweredOff);
    h.run();
    EXPECT_NE(h.handler->closestPeer(), nullptr);
    EXPECT_FALSE(h.handler->hasClosestItem()) << "stored, but not while powered off";
    h.central().setState(BleStatePoweredOn);
    h.run();
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    EXPECT_EQ(h.handler->closestPeer(), nullptr);
    h.advertise(HandlerHarness::deviceId(2), -90);
    EXPECT_EQ(h.handler->closestPeer(), h.item(HandlerHarness::deviceId(2)));
}

TEST(HandlerScan, StartAndStopNeedPowerOn) {
    const struct {
        int state;
        bool start;
        bool result;
        bool tableKept;
        bool scanning;
    } cases[] = {{BleStatePoweredOff, true, false, true, false},
                 {BleStatePoweredOff, false, false, true, false},
                 {BleStateUnauthorized, true, false, true, false},
                 {BleStatePoweredOn, true, true, true, true},
                 {BleStatePoweredOn, false, true, false, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.state << " start " << c.start);
        HandlerHarness h;
        h.advertise(HandlerHarness::deviceId(1), -50, kRoomA);
        h.central().setState(c.state);
        h.run();
        EXPECT_EQ(h.handler->scanForLumerixService(c.start), c.result);
        EXPECT_EQ(h.handler->discoveredDeviceInfo().size(), c.tableKept ? 1 : 0);
        EXPECT_EQ(h.central().isScanning(), c.scanning);
    }
}

TEST(HandlerScan, RescanEveryFifteenSecondsUntilPowerGoesOff) {
    HandlerHarness h;
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    h.time->advance(14999);
    EXPECT_EQ(h.central().scanStartCount(), 1);
    h.time->advance(1);
    EXPECT_EQ(h.central().scanStartCount(), 2);
    EXPECT_EQ(h.central().scanStopCount(), 1);

    // A restart of scanning replaces the pending rescan instead of adding one.
    h.time->advance(5000);
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    h.time->advance(10000);
    EXPECT_EQ(h.central().scanStartCount(), 3);
    h.time->advance(5000);
    EXPECT_EQ(h.central().scanStartCount(), 4);

    // Power off: the next rescan finds the state wrong and the cycle ends for good.
    h.central().setState(BleStatePoweredOff);
    h.time->advance(60000);
    h.central().setState(BleStatePoweredOn);
    h.time->advance(60000);
    EXPECT_EQ(h.central().scanStartCount(), 4);

    // Stopping cancels the pending rescan.
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    ASSERT_TRUE(h.handler->scanForLumerixService(false));
    h.time->advance(60000);
    EXPECT_EQ(h.central().scanStartCount(), 5);
}

TEST(HandlerNotifications, EachCallbackArrivesOnItsQueue) {
    HandlerHarness h;
    h.advertise(HandlerHarness::deviceId(1), -50, kRoomA);
    h.central().setState(BleStatePoweredOff);
    h.handler->scanningQueue()->async([&] { h.handler->triggerOnError(kBleErrorConnectionFailed); });
    h.run();

    // Discoveries, closest-item and status reports are checked where they are made.
    const std::map<std::string, std::string> expected{{"state", QVLumerixHandler::kScanQueueLabel},
                                                      {"error", QVLumerixHandler::kScanQueueLabel}};
    for (const auto& [kind, queue] : expected) {
        const auto events = h.delegate.events(kind);
        ASSERT_FALSE(events.empty()) << kind;
        for (const auto& e : events) EXPECT_EQ(e.queue, queue) << kind;
    }
}

TEST(HandlerLifetime, QueuedWorkDoesNotKeepTheHandlerAlive) {
    HandlerHarness h;
    ASSERT_TRUE(h.handler->scanForLumerixService(true));
    h.advertise(HandlerHarness::deviceId(1), -50, kRoomA);
    auto item = h.item(HandlerHarness::deviceId(1));
    std::weak_ptr<QVLumerixHandler> weak = h.handler;
    // Work in flight on every queue, then the last owner lets go.
    h.central().injectAdvertisement(HandlerHarness::deviceId(1),
                                    AdvertisementData{QStringLiteral("LX"), kRoomA}, -50);
    h.handler->setDelegate(nullptr);
    h.handler.reset();
    EXPECT_TRUE(weak.expired());
    h.time->advance(60000);
    // The item the shell may still hold no longer ticks on the vanished evaluation queue.
    EXPECT_EQ(item->decayingGCDTimer(), nullptr);
}

}  // namespace
}  // namespace lumerix::test
