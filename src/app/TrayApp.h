#pragma once
// The tray utility: `lumerix [--demo]`.
namespace lumerix {
int runTrayApp(int argc, char** argv);
}
