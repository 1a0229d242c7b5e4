// Samples, decay ticks and readers on three threads at once; meant to be run under TSan.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "ble/StaticPeripheral.h"
#include "dispatch/ThreadQueue.h"
#include "receiver/QVLumerixItem.h"

namespace lumerix {
namespace {

class DisappearCounter final : public QVLumerixItemDelegate {
public:
    void lumerixItemDisappeared(QVLumerixItem& item) override {
        calls.fetch_add(1);
        (void)item.toString();
    }
    std::atomic<int> calls{0};
};

// Records are written whole with one repeated byte; a reader seeing two values saw a torn copy.
template <typename T>
T filledWith(unsigned char value) {
    T record;
    std::memset(&record, value, sizeof(T));
    return record;
}
template <typename T>
bool torn(const T& record) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    for (size_t i = 1; i < sizeof(T); ++i)
        if (bytes[i] != bytes[0]) return true;
    return false;
}

TEST(ItemStress, SamplesDecayAndReadersOnThreeThreads) {
    constexpr int kSamples = 20000;
    DisappearCounter delegate;
    ThreadQueue queue("evaluate");
    auto item = QVLumerixItem::initWithPeripheral(std::make_shared<StaticPeripheral>(
        QStringLiteral("00000000-0000-0000-0000-0000000000AA"), QStringLiteral("LX")));
    item->setDecayingQueue(&queue);
    item->setDelegate(&delegate);

    std::atomic<bool> feeding{true};
    std::thread feeder([&] {
        AdvertisementData ad{QStringLiteral("LX"), std::nullopt};
        for (int i = 0; i < kSamples; ++i) {
            ad.manufacturerData = QByteArray(1, static_cast<char>(i));
            item->discoveredRssi((i % 7 == 0) ? 0 : (i % 11 == 0) ? 127 : -40 - (i % 60), ad);
            const auto v = static_cast<unsigned char>(i);
            item->setLumerix(filledWith<LumerixStruct>(v));
            item->setLumerixV2(filledWith<LumerixStructV2>(v));
            item->setLumerixHeader(filledWith<LumerixHeaderStruct>(v));
            if (i % 500 == 0) item->setHasResolved(true);
        }
        feeding.store(false);
    });
    std::thread ticker([&] {
        for (int i = 0; i < 4000; ++i) {
            queue.async([&item] { item->decayItemIfNotReceivingRssi(); });
            if (i % 1000 == 999) queue.sync([] {});  // keep the backlog bounded
        }
    });
    int tornReads = 0;
    for (int reads = 0; feeding.load() || reads < 100; ++reads) {
        const double rssi = item->aveRssi();
        EXPECT_TRUE(rssi == 0 || (rssi <= -40 && rssi >= -99)) << rssi;
        tornReads += torn(item->lumerix()) + torn(item->lumerixV2()) + torn(item->lumerixHeader());
    }
    feeder.join();
    ticker.join();
    EXPECT_EQ(tornReads, 0);
    EXPECT_EQ(item->rssiTotalCount(), static_cast<uint64_t>(kSamples));

    // One tick after a zero sample stops the timer and tells the delegate.
    item->discoveredRssi(0);
    const int before = delegate.calls.load();
    queue.sync([&] { item->decayItemIfNotReceivingRssi(); });
    EXPECT_EQ(delegate.calls.load(), before + 1);

    // The item goes away on its queue while its timer is pending; the queue holds it only weakly.
    std::weak_ptr<QVLumerixItem> weak = item;
    item->discoveredRssi(-50);
    queue.sync([&] { item.reset(); });
    EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace lumerix
