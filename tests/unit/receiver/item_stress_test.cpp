// Samples, decay ticks and readers on three threads at once; meant to be run under TSan.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "dispatch/ThreadQueue.h"
#include "receiver/QVLumerixItem.h"

namespace lumerix {
namespace {

class StressPeripheral final : public BlePeripheral {
public:
    QString identifier() const override { return QStringLiteral("00000000-0000-0000-0000-0000000000AA"); }
    QString name() const override { return QStringLiteral("LX"); }
    void setDelegate(BlePeripheralDelegate*) override {}
    void readRSSI() override {}
    void discoverServices() override {}
    std::vector<BleServiceRef> services() const override { return {}; }
    void discoverCharacteristics(const BleServiceRef&) override {}
    void readValueForCharacteristic(const BleCharacteristicRef&) override {}
};

class CountingDelegate final : public QVLumerixItemDelegate {
public:
    void lumerixItemDisappeared(QVLumerixItem& item) override {
        calls.fetch_add(1, std::memory_order_relaxed);
        (void)item.toString();
    }
    std::atomic<int> calls{0};
};

template <typename T>
bool uniform(const T& record) {
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &record, sizeof(T));
    for (unsigned char b : bytes)
        if (b != bytes[0]) return false;
    return true;
}

template <typename T>
T filledWith(unsigned char value) {
    T record;
    std::memset(&record, value, sizeof(T));
    return record;
}

TEST(ItemStress, SamplesDecayAndReadersOnThreeThreads) {
    constexpr int kSamples = 20000;
    constexpr int kTicks = 4000;
    CountingDelegate delegate;
    ThreadQueue queue("evaluate");
    auto item = QVLumerixItem::initWithPeripheral(std::make_shared<StressPeripheral>());
    item->setDecayingQueue(&queue);
    item->setDelegate(&delegate);

    // A fast timer of its own on the same queue ticks the item while samples restart its timer.
    std::weak_ptr<QVLumerixItem> weak = item;
    auto fastTick = CreateDispatchTimer(
        &queue,
        [weak] {
            if (auto it = weak.lock()) it->decayItemIfNotReceivingRssi();
        },
        0.001);

    std::atomic<bool> feeding{true};
    std::thread feeder([&] {
        AdvertisementData ad;
        ad.localName = QStringLiteral("LX");
        for (int i = 0; i < kSamples; ++i) {
            ad.manufacturerData = QByteArray(1, static_cast<char>(i));
            const double rssi = (i % 7 == 0) ? 0 : (i % 11 == 0) ? 127 : -40 - (i % 60);
            item->discoveredRssi(rssi, ad);
            const auto v = static_cast<unsigned char>(i);
            item->setLumerix(filledWith<LumerixStruct>(v));
            item->setLumerixV2(filledWith<LumerixStructV2>(v));
            item->setLumerixHeader(filledWith<LumerixHeaderStruct>(v));
            if (i % 500 == 0) item->setHasResolved(true);
        }
        feeding.store(false);
    });
    std::thread ticker([&] {
        for (int i = 0; i < kTicks; ++i) {
            queue.async([&item] { item->decayItemIfNotReceivingRssi(); });
            if (i % 1000 == 999) queue.sync([] {});  // keep the backlog bounded
        }
    });
    int torn = 0;
    int reads = 0;
    while (feeding.load() || reads < 100) {
        const double rssi = item->aveRssi();
        EXPECT_TRUE(rssi == 0 || (rssi <= -40 && rssi >= -99)) << rssi;
        torn += !uniform(item->lumerix()) + !uniform(item->lumerixV2()) + !uniform(item->lumerixHeader());
        EXPECT_FALSE(item->toString().isEmpty());
        EXPECT_FALSE(item->getLogString().isEmpty());
        (void)item->isValid();
        (void)item->aliveDuration();
        ++reads;
    }
    feeder.join();
    ticker.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(item->rssiTotalCount(), static_cast<uint64_t>(kSamples));
    EXPECT_EQ(item->advertisedDataList()->count(), QVLumerixItem::kAdvertisedDataCapacity);

    // With the fast timer stopped, one tick after a zero sample stops the timer and tells the delegate.
    queue.sync([&] { GCDTimer::cancelDispatchedTimer(fastTick); });
    item->discoveredRssi(0);
    const int before = delegate.calls.load();
    queue.sync([&] { item->decayItemIfNotReceivingRssi(); });
    EXPECT_EQ(delegate.calls.load(), before + 1);
    EXPECT_FALSE(item->decayingGCDTimer());

    // The item goes away while its timer is pending; the queue holds it only weakly.
    item->discoveredRssi(-50);
    queue.sync([&] { item.reset(); });
    EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace lumerix
