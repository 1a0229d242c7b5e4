// Cost of one accepted RSSI sample on an existing receiver item: counters, time stamp, strength,
// advertisement history and the decay-timer restart. Target: under 1 us per sample.
#include <benchmark/benchmark.h>

#include "ble/BleCentral.h"
#include "ble/StaticPeripheral.h"
#include "dispatch/ManualQueue.h"
#include "dispatch/ThreadQueue.h"
#include "receiver/QVLumerixItem.h"

namespace {
using namespace lumerix;

AdvertisementData sampleAdvertisement() {
    AdvertisementData a;
    a.localName = QStringLiteral("LX");
    a.manufacturerData = QByteArray::fromHex("ffff01a1b2c3d4e5f60718293a4b5c6d7e8f");
    return a;
}

void runSamples(benchmark::State& state, DispatchQueue& queue, const std::shared_ptr<Clock>& clock) {
    auto item = QVLumerixItem::initWithPeripheral(
        std::make_shared<StaticPeripheral>(QStringLiteral("00000000-0000-0000-0000-0A0B0C0D0E0F"),
                                           QStringLiteral("LX")),
        clock);
    item->setDecayingQueue(&queue);
    const AdvertisementData advertisement = sampleAdvertisement();
    double rssi = -40;
    for (auto _ : state) {
        item->discoveredRssi(rssi, advertisement);
        rssi = rssi <= -90 ? -40 : rssi - 1;
    }
    benchmark::DoNotOptimize(item->aveRssi());
    state.SetItemsProcessed(state.iterations());
}

void BM_AcceptedSample_ThreadQueue(benchmark::State& state) {
    ThreadQueue queue("evaluate");
    runSamples(state, queue, systemClock());
}
BENCHMARK(BM_AcceptedSample_ThreadQueue);

void BM_AcceptedSample_ManualQueue(benchmark::State& state) {
    auto time = std::make_shared<VirtualTime>();
    ManualQueue queue(*time, "evaluate");
    runSamples(state, queue, time);
}
BENCHMARK(BM_AcceptedSample_ManualQueue);

// The rejected path (127: no reading) for comparison: no time stamp, no timer.
void BM_RejectedSample(benchmark::State& state) {
    ThreadQueue queue("evaluate");
    auto item = QVLumerixItem::initWithPeripheral(
        std::make_shared<StaticPeripheral>(QStringLiteral("00000000-0000-0000-0000-0A0B0C0D0E0F"),
                                           QStringLiteral("LX")),
        systemClock());
    item->setDecayingQueue(&queue);
    const AdvertisementData advertisement = sampleAdvertisement();
    for (auto _ : state) item->discoveredRssi(kRssiNoReading, advertisement);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RejectedSample);

}  // namespace

BENCHMARK_MAIN();
