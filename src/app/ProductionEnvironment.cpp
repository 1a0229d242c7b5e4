#include "app/ProductionEnvironment.h"

#include "app/CommandLine.h"
#include "ble/SimulatedCentral.h"
#include "dispatch/ThreadQueue.h"
#include "log/Log.h"
#include "platform/bluez/BluezCentral.h"

namespace lumerix {

std::optional<ScanSource> ScanSource::fromCommandLine(const CommandLine& options, QString* error) {
    ScanSource source;
    source.demo = options.demo;
    if (!options.replayPath.isEmpty()) {
        source.replay = AdvertisementTrace::readFile(options.replayPath, error);
        if (!source.replay) return std::nullopt;
        Log::logf("Replaying %zu advertisements from %s (%lld lines skipped)",
                  source.replay->advertisements.size(), qUtf8Printable(options.replayPath),
                  static_cast<long long>(source.replay->skippedLines));
    }
    if (!options.recordPath.isEmpty()) {
        source.recorder = std::make_shared<TraceRecorder>(systemClock(), options.recordPath);
        if (!source.recorder->isOpen()) {
            *error = source.recorder->error();
            return std::nullopt;
        }
    }
    return source;
}

HandlerEnvironment makeProductionEnvironment(DispatchQueue* mainQueue, const ScanSource& source,
                                             const std::shared_ptr<ScanDemand>& demand) {
    HandlerEnvironment env;
    env.clock = systemClock();
    env.mainQueue = mainQueue;
    // The BlueZ central brings its own intake thread; the scan queue only runs its callbacks.
    env.makeQueue = [](const std::string& label) -> std::unique_ptr<DispatchQueue> {
        return std::make_unique<ThreadQueue>(label);
    };
    if (source.replay) {
        SimulatedScenario scenario;
        scenario.trace = source.replay->advertisements;
        env.makeCentral = simulatedCentralFactory(std::move(scenario));
    } else {
        // Receivers advertise as "LX": other named devices are dropped as they arrive.
        env.makeCentral = source.demo ? simulatedCentralFactory(SimulatedScenario::demo())
                                      : BluezCentral::factory(QStringLiteral("LX"), demand);
    }
    if (source.recorder) env.makeCentral = TraceRecorder::recordingFactory(env.makeCentral, source.recorder);
    return env;
}

}  // namespace lumerix
