#pragma once
// A launched shell on virtual time whose real handler hears `receivers` receivers through a
// simulated central. Every queue is a ManualQueue, so a benchmark measures work, not waiting. The
// status bar is the caller's: a null-cost stand-in for the shell's share alone, or the real tray
// adapter for the whole path.
#include <benchmark/benchmark.h>

#include <QTemporaryDir>
#include <array>
#include <functional>
#include <memory>
#include <vector>

#include "ble/SimulatedCentral.h"
#include "dispatch/ManualQueue.h"
#include "log/Log.h"
#include "receiver/LumerixRecordCodec.h"
#include "shell/AppDelegate.h"
#include "shell/ReferenceTable.h"

namespace lumerix::bench {

class NullSink final : public LogSink {
public:
    void write(const QString&) override {}
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

// Makes the status bar from the folder the shell reads its resources from.
using StatusBarFactory = std::function<std::shared_ptr<StatusBar>(const QString& resources)>;

struct ShellBenchRig {
    ShellBenchRig(int receivers, const StatusBarFactory& makeStatusBar) {
        Log::setSink(std::make_shared<NullSink>());
        // Two reference entries, as the shipped table has.
        const QVariantList references{QVariantMap{{QStringLiteral("Device"), QStringLiteral("Boardroom")},
                                                  {QStringLiteral("IP"), QStringLiteral("192.168.10.20")}},
                                      QVariantMap{{QStringLiteral("Device"), QStringLiteral("Training Room")},
                                                  {QStringLiteral("IP"), QStringLiteral("192.168.10.21")}}};
        ReferenceTable::writeToFile(references, dir.filePath(QStringLiteral("DefaultReferenceTable.plist")));
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
        env.statusBar = makeStatusBar(dir.path());
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
        time->advance(AppDelegate::kListRefreshIntervalMs);
    }

    bool ready(int receivers) const {
        return central && shell->discoveredDeviceAry().size() == static_cast<size_t>(receivers);
    }

    // Advertisements arrive this far apart (1,800 a second, as in the flood benchmark), so that
    // the shell's coalesced refreshes and the timers run at their real share.
    static constexpr double kAdvertIntervalMs = 1000.0 / 1800.0;

    // Not inlined, so that a callgrind profile of run() counts one call per advertisement.
    [[gnu::noinline]] void hear(size_t index, double rssi) {
        central->injectAdvertisement(adverts[index].identifier, adverts[index].data, rssi);
        time->advance(kAdvertIntervalMs);
    }

    // One advertisement per iteration, receivers in turn.
    //   Steady:   each receiver keeps its own level, so the order holds (the list is ordered by
    //             each receiver's latest sample, so any jitter between neighbours re-orders it).
    //   Drifting: strengths wander over 45 dB, so nearly every advertisement re-orders the list.
    enum class Signal { Steady, Drifting };
    void run(benchmark::State& state, Signal signal) {
        size_t next = 0;
        double drift = -45.0;
        for (auto _ : state) {
            if (signal == Signal::Steady) {
                hear(next, -40.0 - static_cast<double>(next));
            } else {
                hear(next, drift);
                drift = drift <= -90.0 ? -45.0 : drift - 1.0;
            }
            next = (next + 1) % adverts.size();
        }
        state.counters["listed"] = static_cast<double>(shell->discoveredDeviceAry().size());
        state.counters["menu_rows"] = static_cast<double>(shell->statusMenu()->numberOfItems());
    }

    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();
    ManualQueue mainQueue{*time, "main"};
    QTemporaryDir dir;
    std::unique_ptr<AppDelegate> shell;
    SimulatedCentral* central = nullptr;
    std::vector<Advert> adverts;
};

}  // namespace lumerix::bench
