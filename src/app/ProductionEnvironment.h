#pragma once
// The handler environment of the real program: a scan queue with a Qt event loop (BluezCentral's
// D-Bus work needs one), a serial evaluation thread, the system clock, and BlueZ for the radio
// (or the built-in simulated receivers with --demo, or a recorded trace with --replay).
#include <QString>
#include <memory>
#include <optional>

#include "ble/AdvertisementTrace.h"
#include "ble/TraceRecorder.h"
#include "receiver/QVLumerixHandler.h"

namespace lumerix {

struct CommandLine;

// Where advertisements come from, and whether they are recorded on the way.
struct ScanSource {
    bool demo = false;
    std::optional<AdvertisementTrace> replay;
    std::shared_ptr<TraceRecorder> recorder;

    // From --demo, --replay and --record; nullopt with *error when a trace cannot be read or
    // written. Bad lines of a replayed trace are logged and skipped.
    static std::optional<ScanSource> fromCommandLine(const CommandLine& options, QString* error);
};

class ScanDemand;

// mainQueue: the main thread's queue; must outlive every handler built from the environment.
// demand: whether someone looks at the receivers; the radio pauses between scans while nobody does.
HandlerEnvironment makeProductionEnvironment(DispatchQueue* mainQueue, const ScanSource& source,
                                             const std::shared_ptr<ScanDemand>& demand = nullptr);
inline HandlerEnvironment makeProductionEnvironment(DispatchQueue* mainQueue, bool demo) {
    ScanSource source;
    source.demo = demo;
    return makeProductionEnvironment(mainQueue, source);
}

}  // namespace lumerix
