#pragma once
// Headless scan: `lumerix --scan [SECONDS] [--demo] [--json]`.
namespace lumerix {
int runScanMode(int argc, char** argv);
}
