// Cost of one advertisement from the central to the menu model: the real handler decodes it on
// its evaluation queue, the shell merges it, re-orders the list and rebuilds the receiver
// dictionaries and the menu. Queues are ManualQueues on virtual time, so only work is measured.
// The tray adapter's own cost is measured in bench_tray.
#include <benchmark/benchmark.h>

#include <QTemporaryDir>
#include <memory>
#include <vector>

#include "ble/SimulatedCentral.h"
#include "dispatch/ManualQueue.h"
#include "log/Log.h"
#include "receiver/LumerixRecordCodec.h"
#include "shell/AppDelegate.h"

namespace lumerix {
namespace {

class NullSink final : public LogSink {
public:
    void write(const QString&) override {}
};

class BenchStatusItem final : public StatusItem {
public:
    void setTarget(MenuActionTarget*) override {}
    void setImage(const StatusImageRef&) override {}
    void setMenu(const MenuRef& menu) override { benchmark::DoNotOptimize(menu.get()); }
    bool isMenuOpen() const override { return false; }
};

class BenchStatusBar final : public StatusBar {
public:
    StatusItemRef statusItemWithLength(double) override { return std::make_shared<BenchStatusItem>(); }
    StatusImageRef imageNamed(const QString& name) override { return std::make_shared<StatusImage>(name); }
};

class BenchApplication final : public ShellApplication {
public:
    void hide() override {}
    void terminate() override {}
    int runModal(const Alert&) override { return 0; }
    void orderFrontStandardAboutPanel() override {}
};

struct Advert {
    QString identifier;
    AdvertisementData data;
};

// A launched shell whose handler hears `receivers` receivers through a simulated central.
struct Rig {
    explicit Rig(int receivers) {
        Log::setSink(std::make_shared<NullSink>());
        HandlerEnvironment henv;
        henv.clock = time;
        henv.mainQueue = &mainQueue;
        VirtualTime* t = time.get();
        henv.makeQueue = [t](const std::string& label) -> std::unique_ptr<DispatchQueue> {
            return std::make_unique<ManualQueue>(*t, label);
        };
        henv.makeCentral = simulatedCentralFactory(SimulatedScenario{});

        ShellEnvironment env;
        env.clock = time;
        env.mainQueue = &mainQueue;
        env.makeHandler = makeHandlerFactory(henv);
        env.statusBar = std::make_shared<BenchStatusBar>();
        env.application = std::make_shared<BenchApplication>();
        env.launcher = [](const QByteArray&) { return 0; };
        env.delivery = [](QByteArray, DeliveryDone) {};
        env.sleeper = [this](std::chrono::microseconds) { time->runUntilIdle(); };
        env.listenerPort = std::nullopt;
        env.resourcePath = dir.path();
        env.applicationSupportPath = dir.path();
        shell = std::make_unique<AppDelegate>(env);
        shell->awakeFromNib();
        shell->applicationDidFinishLaunching();
        time->runUntilIdle();
        central = dynamic_cast<SimulatedCentral*>(shell->lumerix()->handler()->cbCM());

        for (int i = 0; i < receivers; ++i) {
            const QByteArray name = QStringLiteral("Room %1").arg(i).toUtf8();
            const std::array<uint8_t, 4> ip{10, 0, static_cast<uint8_t>(i / 256),
                                            static_cast<uint8_t>(i % 256)};
            adverts.push_back({SimulatedCentral::identifierForIndex(static_cast<size_t>(i)),
                               {QStringLiteral("LX"), makeLumerixRecord(kSegmentSingle, ip, 12, 34, name)}});
        }
        // Everyone heard once, so the list is full before measuring.
        for (size_t i = 0; i < adverts.size(); ++i) hear(i, -40.0 - static_cast<double>(i));
    }

    void hear(size_t index, double rssi) {
        central->injectAdvertisement(adverts[index].identifier, adverts[index].data, rssi);
        time->runUntilIdle();
    }

    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();
    ManualQueue mainQueue{*time, "main"};
    QTemporaryDir dir;
    std::unique_ptr<AppDelegate> shell;
    SimulatedCentral* central = nullptr;
    std::vector<Advert> adverts;
};

void BM_AdvertisementToMenu(benchmark::State& state) {
    const int receivers = static_cast<int>(state.range(0));
    Rig rig(receivers);
    if (!rig.central || rig.shell->discoveredDeviceAry().size() != static_cast<size_t>(receivers)) {
        state.SkipWithError("receivers were not listed");
        return;
    }
    size_t next = 0;
    double rssi = -45.0;
    for (auto _ : state) {
        rig.hear(next, rssi);
        next = (next + 1) % rig.adverts.size();
        rssi = rssi <= -90.0 ? -45.0 : rssi - 1.0;  // keeps the order changing
    }
    state.counters["listed"] = static_cast<double>(rig.shell->discoveredDeviceAry().size());
    state.counters["menu_rows"] = static_cast<double>(rig.shell->statusMenu()->numberOfItems());
}
BENCHMARK(BM_AdvertisementToMenu)->Arg(1)->Arg(10)->Arg(50)->Repetitions(5)->ReportAggregatesOnly(true);

// The shell's share alone: merge, re-order, dictionaries and menu for an already decoded item.
void BM_ShellMergeAndMenu(benchmark::State& state) {
    const int receivers = static_cast<int>(state.range(0));
    Rig rig(receivers);
    std::vector<QVLumerixItemRef> items = rig.shell->discoveredDeviceAry();
    if (items.size() != static_cast<size_t>(receivers)) {
        state.SkipWithError("receivers were not listed");
        return;
    }
    size_t next = 0;
    double rssi = -45.0;
    for (auto _ : state) {
        items[next]->addNewRssi(rssi);
        rig.shell->lumerixDidDiscoverItem(items[next]);
        next = (next + 1) % items.size();
        rssi = rssi <= -90.0 ? -45.0 : rssi - 1.0;
    }
}
BENCHMARK(BM_ShellMergeAndMenu)->Arg(1)->Arg(10)->Arg(50)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
}  // namespace lumerix

BENCHMARK_MAIN();
