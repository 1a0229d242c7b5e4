// Cost of one advertisement from the central to the menu model: the real handler decodes it on
// its evaluation queue, the shell merges it, re-orders the list and rebuilds the receiver
// dictionaries and the menu. Queues are ManualQueues on virtual time, so only work is measured.
// The tray adapter's own cost, and the whole path through it, are measured in bench_tray.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "ShellBenchRig.h"

namespace lumerix {
namespace {

using bench::ShellBenchRig;

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

void BM_AdvertisementToMenu(benchmark::State& state) {
    const int receivers = static_cast<int>(state.range(0));
    ShellBenchRig rig(receivers, [](const QString&) { return std::make_shared<BenchStatusBar>(); });
    if (!rig.ready(receivers)) {
        state.SkipWithError("receivers were not listed");
        return;
    }
    rig.run(state, state.range(1) ? ShellBenchRig::Signal::Drifting : ShellBenchRig::Signal::Steady);
}
// Second argument: 0 steady signals, 1 drifting ones (see ShellBenchRig::run).
BENCHMARK(BM_AdvertisementToMenu)
    ->ArgsProduct({{1, 10, 50}, {0, 1}})
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// The shell's share alone: merge, re-order, dictionaries and menu for an already decoded item.
void BM_ShellMergeAndMenu(benchmark::State& state) {
    const int receivers = static_cast<int>(state.range(0));
    ShellBenchRig rig(receivers, [](const QString&) { return std::make_shared<BenchStatusBar>(); });
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
