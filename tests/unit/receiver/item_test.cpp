#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "dispatch/ManualQueue.h"
#include "log/Log.h"
#include "receiver/QVLumerixItem.h"

namespace lumerix {
namespace {

class StillPeripheral final : public BlePeripheral {
public:
    StillPeripheral(QString id, QString name) : id_(std::move(id)), name_(std::move(name)) {}
    QString identifier() const override { return id_; }
    QString name() const override { return name_; }
    void setDelegate(BlePeripheralDelegate*) override {}
    void readRSSI() override {}
    void discoverServices() override {}
    std::vector<BleServiceRef> services() const override { return {}; }
    void discoverCharacteristics(const BleServiceRef&) override {}
    void readValueForCharacteristic(const BleCharacteristicRef&) override {}

private:
    QString id_;
    QString name_;
};

class CountingDelegate final : public QVLumerixItemDelegate {
public:
    void lumerixItemDisappeared(QVLumerixItem& item) override {
        ++calls;
        // Reading the item back from the callback must not deadlock.
        resolvedWhenTold = item.hasResolved();
    }
    int calls = 0;
    bool resolvedWhenTold = true;
};

const QString kId = QStringLiteral("00000000-0000-0000-0000-A1B2C3D4E5F6");

AdvertisementData ad(const char* hex) {
    AdvertisementData a;
    a.localName = QStringLiteral("LX");
    a.manufacturerData = QByteArray::fromHex(hex);
    return a;
}

class ItemTest : public ::testing::Test {
protected:
    ItemTest() : clock(std::shared_ptr<VirtualTime>(), &time), queue(time, "evaluate") {
        item = QVLumerixItem::initWithPeripheral(
            std::make_shared<StillPeripheral>(kId, QStringLiteral("Room 4")), clock);
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
    struct Case {
        double rssi;
        bool accepted;
    };
    const Case cases[] = {
        {127, false},      {0.5, false},       {1e-50, true},  // rounds to 0.0f, which is not above 0
        {0, true},         {-1, true},         {-100, true},
        {-100.9, true},  // integer value -100
        {-101, false},     {-250, false},      {std::numeric_limits<double>::quiet_NaN(), false},
        {HUGE_VAL, false}, {-HUGE_VAL, false}, {1e300, false},
    };
    ScopedLogCapture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rssi);
        auto it = QVLumerixItem::initWithPeripheral(nullptr, clock);
        it->setDecayingQueue(&queue);
        it->discoveredRssi(-42);
        time.advance(500);
        it->discoveredRssi(c.rssi, ad("ffff01"));
        EXPECT_EQ(it->rssiTotalCount(), 2u);
        EXPECT_EQ(it->validRssiTotalCount(), c.accepted ? 2u : 1u);
        EXPECT_EQ(it->aveRssi(), c.accepted ? c.rssi : -42.0);
        EXPECT_EQ(it->discoveredTimeStamp(), time.nowMs() - (c.accepted ? 0 : 500));
        EXPECT_EQ(it->advertisedDataList()->count(), 1u) << "pushed even when rejected";
        EXPECT_EQ(it->isValid(), c.accepted ? (c.rssi >= -100.0 && c.rssi < 0.0) : true);
    }
    EXPECT_EQ(log.count(QStringLiteral("-[QVLumerixItem discoveredRssi:] ignored a non-finite RSSI sample")),
              3);
}

TEST_F(ItemTest, ZeroSampleStopsTimerAfterOneTickAndTellsDelegateOnce) {
    item->setHasResolved(true);
    item->discoveredRssi(0);
    EXPECT_FALSE(item->isValid());
    ASSERT_TRUE(item->decayingGCDTimer());
    time.advance(2999);
    EXPECT_EQ(delegate.calls, 0);
    EXPECT_TRUE(item->hasResolved());
    time.advance(1);
    EXPECT_EQ(delegate.calls, 1);
    EXPECT_FALSE(delegate.resolvedWhenTold);
    EXPECT_FALSE(item->hasResolved());
    EXPECT_FALSE(item->decayingGCDTimer());
    time.advance(30000);
    EXPECT_EQ(delegate.calls, 1);
    EXPECT_EQ(time.pendingCount(), 0u);

    // The next accepted sample starts the timer again.
    item->discoveredRssi(0);
    time.advance(3000);
    EXPECT_EQ(delegate.calls, 2);
}

TEST_F(ItemTest, EveryAcceptedSamplePushesTheTickThreeSecondsOut) {
    item->discoveredRssi(0);
    time.advance(2000);
    item->discoveredRssi(0);  // restarts: no tick at 3 s
    time.advance(1500);
    item->discoveredRssi(127);  // rejected: does not restart
    time.advance(1499);
    EXPECT_EQ(delegate.calls, 0);
    time.advance(1);
    EXPECT_EQ(delegate.calls, 1);
}

TEST_F(ItemTest, ReceiverThatFallsSilentKeepsItsLastStrength) {
    item->discoveredRssi(-61);
    time.advance(60000);
    EXPECT_EQ(item->aveRssi(), -61.0);
    EXPECT_TRUE(item->isValid());
    EXPECT_TRUE(item->decayingGCDTimer()) << "timer keeps ticking";
    EXPECT_EQ(delegate.calls, 0);
}

TEST_F(ItemTest, StaleTickMarksInvalidOnlyWithThreeQueuedSamples) {
    struct Case {
        int queued;
        double silentMs;
        double expected;
    };
    const Case cases[] = {{3, 3000, -101}, {2, 3000, -55}, {3, 2999, -55}, {6, 9000, -101}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.queued);
        item->resetAllValues();
        item->discoveredRssi(-55);
        for (int i = 0; i < c.queued; ++i) item->rssiQueue()->push(-50);
        time.advance(c.silentMs);
        item->decayItemIfNotReceivingRssi();
        EXPECT_EQ(item->aveRssi(), c.expected);
    }
}

TEST_F(ItemTest, CalculateAverage) {
    struct Case {
        int queued;
        double sum;
        double before;
        double expected;
    };
    const Case cases[] = {
        {2, -150, -70, -70}, {3, -150, -70, -50}, {4, -200, -70, -50},
        {3, -300, -70, 0},   {2, -150, -100, 0},  {0, 0, -101, 0},
    };
    for (const auto& c : cases) {
        item->resetAllValues();
        item->addNewRssi(c.before);
        for (int i = 0; i < c.queued; ++i) item->rssiQueue()->push(-1);
        item->setRssiSum(c.sum);
        item->calculateAverage();
        EXPECT_EQ(item->aveRssi(), c.expected) << c.queued << " " << c.sum;
    }
}

TEST_F(ItemTest, ResetLeavesDecodedStateAndKeepsTimerReference) {
    item->setHasResolved(true);
    item->setIpAddress(QStringLiteral("10.0.0.7"));
    item->setReceiverName(QStringLiteral("Board room"));
    LumerixStructV2 v2{};
    std::strcpy(v2.ipAddress, "10.0.0.7");
    item->setLumerixV2(v2);
    item->discoveredRssi(-40, ad("ffff02"));
    item->rssiQueue()->push(-40);
    const auto timer = item->decayingGCDTimer();
    time.advance(1000);

    item->resetAllValues();
    EXPECT_EQ(item->decayingGCDTimer(), timer);
    EXPECT_TRUE(timer->isCancelled());
    EXPECT_EQ(item->aveRssi(), 0.0);
    EXPECT_EQ(item->rssiQueue()->count(), 0u);
    EXPECT_EQ(item->advertisedDataList()->count(), 0u);
    EXPECT_EQ(item->rssiTotalCount(), 0u);
    EXPECT_EQ(item->aliveTimeStamp(), time.nowMs());
    EXPECT_EQ(item->discoveredTimeStamp(), time.nowMs());
    EXPECT_TRUE(item->hasResolved());
    EXPECT_EQ(item->ipAddress(), QStringLiteral("10.0.0.7"));
    EXPECT_EQ(item->receiverName(), QStringLiteral("Board room"));
    EXPECT_STREQ(item->lumerixV2().ipAddress, "10.0.0.7");
    EXPECT_EQ(item->decayingQueue(), &queue);
    EXPECT_EQ(item->delegate(), &delegate);

    item->discoveredRssi(-40);
    item->clearRssiDatas();
    EXPECT_FALSE(item->decayingGCDTimer());
    EXPECT_EQ(item->aveRssi(), 0.0);
    time.advance(10000);
    EXPECT_EQ(delegate.calls, 0) << "a cleared timer never ticks";
}

TEST_F(ItemTest, TimerDoesNotKeepItemAlive) {
    item->discoveredRssi(-40);
    std::weak_ptr<QVLumerixItem> weak = item;
    item.reset();
    EXPECT_TRUE(weak.expired());
    time.advance(10000);  // the queue outlives the item; nothing runs on freed memory
    EXPECT_EQ(time.pendingCount(), 0u);
}

TEST_F(ItemTest, UsableWithoutQueueOrDelegateOrPeripheral) {
    auto bare = QVLumerixItem::initWithPeripheral(nullptr, clock);
    bare->discoveredRssi(0);
    EXPECT_FALSE(bare->decayingGCDTimer());
    bare->decayItemIfNotReceivingRssi();
    EXPECT_FALSE(bare->shortenedUUID());
    EXPECT_EQ(bare->aliveDuration(), bare->discoveredTimeStamp());

    EXPECT_EQ(item->shortenedUUID(), kId);
    EXPECT_EQ(item->shortenedUUID()->size(), 36);
}

TEST_F(ItemTest, ToStringText) {
    item->rssiQueue()->push(-61);
    item->rssiQueue()->push(-62.5);
    item->setRssiSum(-123.5);
    item->addNewRssi(-61);
    EXPECT_EQ(item->toString(),
              QStringLiteral("..........Item Room 4-00000000-0000-0000-0000-A1B2C3D4E5F6..........\n"
                             "RSSI lsit: -61,-62.5\n"
                             "RSSI SUM: -123.500000\n"
                             "RSSI AVE: -61.000000\n"));
}

TEST_F(ItemTest, LogStringWithoutName) {
    time.advance(5000);
    item->discoveredRssi(-70, ad("ffff0a"));
    item->discoveredRssi(127, ad("ffff0b"));
    item->rssiQueue()->push(-70);
    item->rssiQueue()->push(-71);
    time.advance(61234);
    EXPECT_EQ(item->getLogString(), QStringLiteral("Timer: 01:06:0234 - 01:01:0234\n"
                                                   "ID: \n00000000-0000-0000-0000-A1B2C3D4E5F6\n\n"
                                                   "RSSIs: \n{-70,-71}\n\n"
                                                   "Data:\n{LocalName = LX; ManufacturerData = <ffff0a>},\n"
                                                   "{LocalName = LX; ManufacturerData = <ffff0b>}"));
}

TEST_F(ItemTest, LogStringWithNameReadsBoundedFields) {
    LumerixStruct rec{};
    std::memset(rec.WiFiSSID, 'S', sizeof rec.WiFiSSID);  // fills its field: no terminator
    std::strcpy(rec.WiFiKey, "key");
    item->setLumerix(rec);
    time.advance(600000 + 999);  // minutes are not wrapped at 60 either way
    const QString text = item->getLogString();
    EXPECT_TRUE(text.startsWith(QStringLiteral("Timer: 10:00:0999 - 10:00:0999\nName: \nkey(") +
                                QString(32, QLatin1Char('S')) + QStringLiteral(")\n\nID: \n") + kId +
                                QStringLiteral("\n\nRSSIs: \n{}\n\nData:\n")))
        << text.toStdString();
}

}  // namespace
}  // namespace lumerix
