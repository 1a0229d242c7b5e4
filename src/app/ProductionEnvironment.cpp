#include "app/ProductionEnvironment.h"

#include "ble/SimulatedCentral.h"
#include "dispatch/ThreadQueue.h"
#include "platform/bluez/BluezCentral.h"

namespace lumerix {

HandlerEnvironment makeProductionEnvironment(DispatchQueue* mainQueue, bool demo) {
    HandlerEnvironment env;
    env.clock = systemClock();
    env.mainQueue = mainQueue;
    // The BlueZ central brings its own intake thread; the scan queue only runs its callbacks.
    env.makeQueue = [](const std::string& label) -> std::unique_ptr<DispatchQueue> {
        return std::make_unique<ThreadQueue>(label);
    };
    // Receivers advertise as "LX": other named devices are dropped as they arrive.
    env.makeCentral = demo ? simulatedCentralFactory(SimulatedScenario::demo())
                           : BluezCentral::factory(QStringLiteral("LX"));
    return env;
}

}  // namespace lumerix
