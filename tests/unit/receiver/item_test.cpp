#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "ble/BleCentral.h"
#include "ble/StaticPeripheral.h"
#include "dispatch/ManualQueue.h"
#include "log/Log.h"
#include "receiver/QVLumerixItem.h"

namespace lumerix {
namespace {

class CountingDelegate final : public QVLumerixItemDelegate {
public:
    void lumerixItemDisappeared(QVLumerixItem& item) override {
        ++calls;
        resolvedWhenTold = item.hasResolved();  // reading the item back must not deadlock
    }
    int calls = 0;
    bool resolvedWhenTold = true;
};

const QString kId = QStringLiteral("00000000-0000-0000-0000-A1B2C3D4E5F6");

AdvertisementData ad(const char* hex) {
    return AdvertisementData{QStringLiteral("LX"), QByteArray::fromHex(hex)};
}

class ItemTest : public ::testing::Test {
protected:
    ItemTest() : clock(std::shared_ptr<VirtualTime>(), &time), queue(time, "evaluate") {
        item = QVLumerixItem::initWithPeripheral(
            std::make_shared<StaticPeripheral>(kId, QStringLiteral("Room 4")), clock);
        item->setDecayingQueue(&queue);
        item->setDelegate(&delegate);
    }
    VirtualTime time;
    std::shared_ptr<Clock> clock;  // aliases `time`, which outlives the item
    ManualQueue queue;
    CountingDelegate delegate;
    QVLumerixItemRef item;
};

TEST_F(ItemTest, SampleIntakeBoundaries) {
    const struct {
        double rssi;
        bool accepted;
    } cases[] = {
        {127, false},       {0.5, false},
        {0, true},          {-1, true},
        {-100, true},       {-100.9, true},  // integer value -100
        {-101, false},      {std::numeric_limits<double>::quiet_NaN(), false},
        {-HUGE_VAL, false},
    };
    ScopedLogCapture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rssi);
        auto it = QVLumerixItem::initWithPeripheral(nullptr, clock);
        it->setDecayingQueue(&queue);
        it->discoveredRssi(-42);
        time.advance(500);
        it->discoveredRssi(c.rssi, ad("ffff01"));
        EXPECT_EQ(it->validRssiTotalCount(), c.accepted ? 2u : 1u);
        EXPECT_EQ(it->aveRssi(), c.accepted ? c.rssi : -42.0);
        EXPECT_EQ(it->discoveredTimeStamp(), time.nowMs() - (c.accepted ? 0 : 500));
        EXPECT_EQ(it->advertisedDataList()->count(), 1u) << "pushed even when rejected";
        EXPECT_EQ(it->isValid(), !c.accepted || (c.rssi >= -100.0 && c.rssi < 0.0));
    }
    EXPECT_EQ(log.count(QStringLiteral("-[QVLumerixItem discoveredRssi:] ignored a non-finite RSSI sample")),
              2);
}

// A zero sample starts a 3 s timer that every accepted sample restarts; when it runs out the
// timer stops and the delegate is told once, the item no longer resolved.
TEST_F(ItemTest, ZeroSampleStopsTheTimerAfterThreeQuietSecondsAndTellsTheDelegateOnce) {
    item->setHasResolved(true);
    item->discoveredRssi(0);
    EXPECT_FALSE(item->isValid());
    time.advance(2000);
    item->discoveredRssi(0);  // restarts: no tick at 3 s
    time.advance(1500);
    item->discoveredRssi(kRssiNoReading);  // rejected: does not restart
    time.advance(1499);
    EXPECT_EQ(delegate.calls, 0);
    time.advance(1);
    EXPECT_EQ(delegate.calls, 1);
    EXPECT_FALSE(delegate.resolvedWhenTold);
    EXPECT_FALSE(item->decayingGCDTimer());
    time.advance(30000);
    EXPECT_EQ(delegate.calls, 1);
    EXPECT_EQ(time.pendingCount(), 0u);
    item->discoveredRssi(0);  // and after a stop, the next sample starts it again
    time.advance(3000);
    EXPECT_EQ(delegate.calls, 2);
}

TEST_F(ItemTest, TextForms) {
    time.advance(5000);
    item->discoveredRssi(-70, ad("ffff0a"));
    item->discoveredRssi(kRssiNoReading, ad("ffff0b"));
    item->rssiQueue()->push(-70);
    item->rssiQueue()->push(-62.5);
    time.advance(61234);
    EXPECT_EQ(item->getLogString(), QStringLiteral("Timer: 01:06:0234 - 01:01:0234\n"
                                                   "ID: \n00000000-0000-0000-0000-A1B2C3D4E5F6\n\n"
                                                   "RSSIs: \n{-70,-62.5}\n\n"
                                                   "Data:\n{LocalName = LX; ManufacturerData = <ffff0a>},\n"
                                                   "{LocalName = LX; ManufacturerData = <ffff0b>}"));
    item->setRssiSum(-132.5);
    EXPECT_EQ(item->toString(),
              QStringLiteral("..........Item Room 4-00000000-0000-0000-0000-A1B2C3D4E5F6..........\n"
                             "RSSI lsit: -70,-62.5\n"
                             "RSSI SUM: -132.500000\n"
                             "RSSI AVE: -70.000000\n"));
}

}  // namespace
}  // namespace lumerix
