#pragma once
// The handler environment of the real program: a scan queue with a Qt event loop (BluezCentral's
// D-Bus work needs one), a serial evaluation thread, the system clock, and BlueZ for the radio
// (or the built-in simulated receivers with --demo).
#include "receiver/QVLumerixHandler.h"

namespace lumerix {

// mainQueue: the main thread's queue; must outlive every handler built from the environment.
HandlerEnvironment makeProductionEnvironment(DispatchQueue* mainQueue, bool demo);

}  // namespace lumerix
