// The tray adapter's cost of showing the shell's menu, which the shell rebuilds from new item
// objects on every advertisement. 50 receivers plus the fixed entries:
//   Unchanged   same titles and order, new objects: only the click bindings are swapped.
//   TwoSwapped  two receivers trade places: two rows edited.
//   AllRenamed  every receiver row changes: the worst case of the row-by-row edit.
//   FullRebuild baseline: clearing the QMenu and adding every action again, what a naive adapter
//               does on every advertisement.
// AdvertisementToTray is the whole path of one advertisement at 50 receivers: the real handler
// decodes it, the shell merges it and refreshes its menu, and this adapter shows the result; with
// steady signals (the order holds) and drifting ones (the order changes nearly every time).
// Runs on QT_QPA_PLATFORM=offscreen unless a platform is set.
#include <benchmark/benchmark.h>

#include <QAction>
#include <QApplication>
#include <QFile>
#include <QMenu>
#include <vector>

#include "ShellBenchRig.h"
#include "app/QtStatusItem.h"

namespace {
using namespace lumerix;

constexpr int kReceivers = 50;

// What the shell builds: receivers strongest first, two reference entries, separator, About, Exit.
MenuRef shellMenu(const std::vector<QString>& receivers) {
    auto menu = std::make_shared<Menu>(QStringLiteral("Lumerix"));
    for (const QString& name : receivers)
        menu->addItem(MenuItem::initWithTitle(name, MenuAction::DeviceConnect));
    menu->addItem(MenuItem::initWithTitle(QStringLiteral("Boardroom"), MenuAction::DeviceConnect));
    menu->addItem(MenuItem::initWithTitle(QStringLiteral("Training Room"), MenuAction::DeviceConnect));
    menu->addItem(MenuItem::separatorItem());
    menu->addItem(MenuItem::initWithTitle(QStringLiteral("About"), MenuAction::ShowAbout));
    menu->addItem(MenuItem::initWithTitle(QStringLiteral("Exit"), MenuAction::QuitApp));
    return menu;
}

std::vector<QString> receiverNames(const QString& prefix) {
    std::vector<QString> names;
    for (int i = 0; i < kReceivers; ++i) names.push_back(QStringLiteral("%1 %2").arg(prefix).arg(i));
    return names;
}

// Fresh menus, built ahead in batches so that building them stays outside the timing.
class MenuSupply {
public:
    MenuSupply(benchmark::State& state, std::vector<QString> a, std::vector<QString> b)
        : state_(state), a_(std::move(a)), b_(std::move(b)) {}
    MenuRef next() {
        if (used_ == batch_.size()) refill();
        return std::move(batch_[used_++]);
    }
    MenuRef first() { return shellMenu(a_); }

private:
    void refill() {
        state_.PauseTiming();
        batch_.clear();
        for (int i = 0; i < 256; ++i) batch_.push_back(shellMenu((flip_ = !flip_) ? b_ : a_));
        used_ = 0;
        state_.ResumeTiming();
    }
    benchmark::State& state_;
    std::vector<QString> a_, b_;
    std::vector<MenuRef> batch_;
    size_t used_ = 0;
    bool flip_ = false;
};

// Applies menus alternating between two receiver lists, as the shell attaches them.
void applyAlternating(benchmark::State& state, const std::vector<QString>& a, const std::vector<QString>& b) {
    QtStatusItem item(QStringLiteral("."));
    MenuSupply supply(state, a, b);
    item.setMenu(supply.first());
    const uint64_t before = item.menuUpdates();
    for (auto _ : state) item.setMenu(supply.next());
    state.counters["edited"] = benchmark::Counter(static_cast<double>(item.menuUpdates() - before),
                                                  benchmark::Counter::kAvgIterations);
}

void BM_TrayMenu_Unchanged(benchmark::State& state) {
    const auto names = receiverNames(QStringLiteral("Room"));
    applyAlternating(state, names, names);
}
BENCHMARK(BM_TrayMenu_Unchanged);

void BM_TrayMenu_TwoSwapped(benchmark::State& state) {
    const auto names = receiverNames(QStringLiteral("Room"));
    auto swapped = names;
    std::swap(swapped[10], swapped[11]);
    applyAlternating(state, names, swapped);
}
BENCHMARK(BM_TrayMenu_TwoSwapped);

void BM_TrayMenu_AllRenamed(benchmark::State& state) {
    applyAlternating(state, receiverNames(QStringLiteral("Room")), receiverNames(QStringLiteral("Hall")));
}
BENCHMARK(BM_TrayMenu_AllRenamed);

void BM_TrayMenu_FullRebuild(benchmark::State& state) {
    QMenu menu;
    const auto names = receiverNames(QStringLiteral("Room"));
    MenuSupply supply(state, names, names);
    for (auto _ : state) {
        MenuRef model = supply.next();
        menu.clear();
        for (const MenuItemRef& item : model->items()) {
            if (item->isSeparatorItem()) {
                menu.addSeparator();
            } else {
                menu.addAction(item->title().value_or(QString()));
            }
        }
    }
}
BENCHMARK(BM_TrayMenu_FullRebuild);

void BM_AdvertisementToTray(benchmark::State& state) {
    bench::ShellBenchRig rig(kReceivers, [](const QString& resources) {
        // Tiny icons, so the adapter loads and switches real images as in production.
        for (const char* name : {"Normal_Icon", "Normal_Disable_Icon"}) {
            QFile f(resources + QLatin1Char('/') + QLatin1String(name) + QStringLiteral(".svg"));
            if (f.open(QIODevice::WriteOnly))
                f.write(
                    "<svg xmlns='http://www.w3.org/2000/svg' width='22' height='22'>"
                    "<rect width='22' height='22'/></svg>");
        }
        return std::make_shared<QtStatusBar>(resources);
    });
    auto* item = dynamic_cast<QtStatusItem*>(rig.shell->statusItem().get());
    if (!item || !rig.ready(kReceivers)) {
        state.SkipWithError("receivers were not listed in the tray");
        return;
    }
    const uint64_t before = item->menuUpdates();
    rig.run(state,
            state.range(0) ? bench::ShellBenchRig::Signal::Drifting : bench::ShellBenchRig::Signal::Steady);
    state.counters["edited"] = benchmark::Counter(static_cast<double>(item->menuUpdates() - before),
                                                  benchmark::Counter::kAvgIterations);
}
// Argument: 0 steady signals, 1 drifting ones (see ShellBenchRig::run).
BENCHMARK(BM_AdvertisementToTray)->Arg(0)->Arg(1)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
