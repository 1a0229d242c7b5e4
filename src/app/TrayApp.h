#pragma once
// The tray utility: `lumerix [--demo]`. Without a display it says so in one line and returns 1
// before Qt looks for one.
#include "app/CommandLine.h"

namespace lumerix {
int runTrayApp(int argc, char** argv, const CommandLine& options);
}
