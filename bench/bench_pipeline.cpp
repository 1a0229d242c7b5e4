// Advertisement pipeline costs: decoding one record, and the whole road from a simulated central's
// advertisement to the delegate's main-queue callback, on virtual time (CPU per advertisement) and
// on real threads. A long run reports peak resident memory before and after millions more
// advertisements, to show that memory stays flat.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>

#include "ble/SimulatedCentral.h"
#include "dispatch/ManualQueue.h"
#include "dispatch/ThreadQueue.h"
#include "log/Log.h"
#include "receiver/LumerixRecordCodec.h"
#include "receiver/QVLumerixHandler.h"

namespace {

using namespace lumerix;

class NullSink final : public LogSink {
public:
    void write(const QString&) override {}
};

class CountingDelegate final : public LumerixHandler_Delegate {
public:
    void lumerixDidDiscoverItem(const QVLumerixItemRef&) override {
        const uint64_t n = discovered.fetch_add(1, std::memory_order_relaxed) + 1;
        if (n >= target.load(std::memory_order_relaxed)) {
            std::lock_guard lock(mutex);
            reached.notify_all();
        }
    }
    void waitFor(uint64_t n) {
        target.store(n);
        std::unique_lock lock(mutex);
        reached.wait(lock, [&] { return discovered.load() >= n; });
    }
    std::atomic<uint64_t> discovered{0};
    std::atomic<uint64_t> target{UINT64_MAX};
    std::mutex mutex;
    std::condition_variable reached;
};

double maxRssKb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss);
}

double currentRssKb() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * 4.0;
}

// N receivers, each every 100 ms, spread evenly over the interval.
SimulatedScenario scenarioOf(int receivers) {
    SimulatedScenario s;
    for (int i = 0; i < receivers; ++i) {
        SimulatedReceiver r;
        r.name = i % 3 == 0 ? QStringLiteral("Conference Room %1 North Wing").arg(i)
                            : QStringLiteral("Room %1").arg(i);
        r.ipv4 = {10, 0, static_cast<uint8_t>(i / 250), static_cast<uint8_t>(i % 250 + 1)};
        r.rssiSequence = {-50.0 - i % 40, -52.0 - i % 40, -49.0 - i % 40};
        r.intervalMs = 100;
        r.appearAtMs = 100.0 * i / receivers;
        s.receivers.push_back(std::move(r));
    }
    return s;
}

struct VirtualRig {
    explicit VirtualRig(int receivers) {
        Log::setSink(std::make_shared<NullSink>());
        HandlerEnvironment env;
        env.clock = time;
        env.mainQueue = &main;
        env.makeQueue = [this](const std::string& label) {
            return std::make_unique<ManualQueue>(*time, label);
        };
        env.makeCentral = simulatedCentralFactory(scenarioOf(receivers));
        handler = QVLumerixHandler::create(std::move(env));
        handler->setDelegate(&delegate);
        time->runUntilIdle();
        handler->scanForLumerixService(true);
    }
    ~VirtualRig() {
        handler->setDelegate(nullptr);
        handler.reset();
        Log::setSink(nullptr);
    }
    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();
    ManualQueue main{*time, "main"};
    CountingDelegate delegate;
    std::shared_ptr<QVLumerixHandler> handler;
};

void BM_DecodeRecord(benchmark::State& state) {
    VirtualRig rig(0);
    auto item = QVLumerixItem::initWithPeripheral(dynamic_cast<SimulatedCentral*>(rig.handler->cbCM())
                                                      ->peripheral(SimulatedCentral::identifierForIndex(0)),
                                                  rig.time);
    const bool twoSegments = state.range(0) == 2;
    const QByteArray first =
        twoSegments ? makeLumerixRecord(kSegmentFirstOfTwo, {10, 0, 0, 5}, 12, 34, "ConferenceRoom-1")
                    : makeLumerixRecord(kSegmentSingle, {10, 0, 0, 5}, 12, 34, "Room A");
    const QByteArray second =
        twoSegments ? makeLumerixRecord(kSegmentSecondOfTwo, {10, 0, 0, 5}, 12, 34, "North") : first;
    uint64_t n = 0;
    for (auto _ : state) {
        rig.handler->decrytLumerixItem(item, (n++ & 1) ? second : first);
    }
    rig.time->runUntilIdle();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    state.SetLabel(twoSegments ? "two segments" : "one segment");
}
BENCHMARK(BM_DecodeRecord)->Arg(1)->Arg(2);

// One iteration = 100 ms of virtual time = one advertisement from each receiver, processed through
// the scan, evaluation and main queues.
void BM_PipelineVirtualTime(benchmark::State& state) {
    const int receivers = static_cast<int>(state.range(0));
    VirtualRig rig(receivers);
    rig.time->advance(1000);  // warm up: every item exists
    const uint64_t before = rig.delegate.discovered.load();
    for (auto _ : state) rig.time->advance(100);
    const uint64_t done = rig.delegate.discovered.load() - before;
    state.SetItemsProcessed(static_cast<int64_t>(done));
    state.counters["adv_per_iter"] = static_cast<double>(done) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PipelineVirtualTime)->Arg(1)->Arg(10)->Arg(100);

// Real threads: scan and evaluation ThreadQueues and a main ThreadQueue. The benchmark thread
// injects a burst of advertisements and waits for the last main-queue callback.
void BM_PipelineThreads(benchmark::State& state) {
    const int receivers = static_cast<int>(state.range(0));
    constexpr int kBurst = 1000;
    Log::setSink(std::make_shared<NullSink>());
    ThreadQueue main("main");
    CountingDelegate delegate;
    HandlerEnvironment env;
    env.mainQueue = &main;
    env.makeQueue = [](const std::string& label) { return std::make_unique<ThreadQueue>(label); };
    env.makeCentral = simulatedCentralFactory({});
    auto handler = QVLumerixHandler::create(std::move(env));
    handler->setDelegate(&delegate);
    auto* central = dynamic_cast<SimulatedCentral*>(handler->cbCM());

    std::vector<QString> ids;
    std::vector<AdvertisementData> ads;
    for (int i = 0; i < receivers; ++i) {
        ids.push_back(SimulatedCentral::identifierForIndex(static_cast<size_t>(i)));
        ads.push_back(
            {QStringLiteral("LX"), makeLumerixRecord(kSegmentSingle, {10, 0, 0, static_cast<uint8_t>(i)}, 1,
                                                     2, QByteArray("Room ") + QByteArray::number(i))});
    }
    uint64_t sent = 0;
    for (auto _ : state) {
        for (int k = 0; k < kBurst; ++k) {
            const auto i = static_cast<size_t>(sent % static_cast<uint64_t>(receivers));
            central->injectAdvertisement(ids[i], ads[i], -50.0 - static_cast<double>(k % 30));
            ++sent;
        }
        delegate.waitFor(sent);
    }
    state.SetItemsProcessed(static_cast<int64_t>(sent));
    // Nothing in flight when the last owner lets go, so the teardown happens here.
    handler->setDelegate(nullptr);
    dynamic_cast<ThreadQueue*>(handler->scanningQueue())->sync([] {});
    dynamic_cast<ThreadQueue*>(handler->evaluatingQueue())->sync([] {});
    handler.reset();
    main.sync([] {});
    Log::setSink(nullptr);
}
BENCHMARK(BM_PipelineThreads)->Arg(1)->Arg(10)->Arg(100)->UseRealTime()->Unit(benchmark::kMillisecond);

// Memory over a long run: peak RSS after a first million advertisements and after the rest.
void BM_PipelineLongRun(benchmark::State& state) {
    const char* env = std::getenv("LUMERIX_BENCH_LONG_ADVERTISEMENTS");
    const double total = env ? std::atof(env) : 10e6;
    constexpr int kReceivers = 100;
    for (auto _ : state) {
        VirtualRig rig(kReceivers);
        const auto steps = static_cast<uint64_t>(total / kReceivers);
        const uint64_t warmSteps = steps / 10;
        for (uint64_t i = 0; i < warmSteps; ++i) rig.time->advance(100);
        state.counters["maxrss_kb_at_10pct"] = maxRssKb();
        state.counters["rss_kb_at_10pct"] = currentRssKb();
        for (uint64_t i = warmSteps; i < steps; ++i) rig.time->advance(100);
        state.counters["maxrss_kb_at_end"] = maxRssKb();
        state.counters["rss_kb_at_end"] = currentRssKb();
        state.counters["advertisements"] = static_cast<double>(rig.delegate.discovered.load());
        state.counters["pending_tasks_at_end"] = static_cast<double>(rig.time->pendingCount());
        state.SetItemsProcessed(static_cast<int64_t>(rig.delegate.discovered.load()));
    }
}
BENCHMARK(BM_PipelineLongRun)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
