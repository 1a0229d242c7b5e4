#include "app/ProductionEnvironment.h"

#include "ble/SimulatedCentral.h"
#include "dispatch/QtQueues.h"
#include "dispatch/ThreadQueue.h"
#include "platform/bluez/BluezCentral.h"

namespace lumerix {

HandlerEnvironment makeProductionEnvironment(DispatchQueue* mainQueue, bool demo) {
    HandlerEnvironment env;
    env.clock = systemClock();
    env.mainQueue = mainQueue;
    env.makeQueue = [](const std::string& label) -> std::unique_ptr<DispatchQueue> {
        if (label == QVLumerixHandler::kScanQueueLabel)
            return std::make_unique<QtEventLoopThreadQueue>(label);
        return std::make_unique<ThreadQueue>(label);
    };
    env.makeCentral = demo ? simulatedCentralFactory(SimulatedScenario::demo()) : BluezCentral::factory();
    return env;
}

}  // namespace lumerix
