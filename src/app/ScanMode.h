#pragma once
// Headless scan: `lumerix --scan [SECONDS] [--demo] [--json]` (10 s by default). Prints a line per
// receiver as it resolves or changes and a table strongest first at the end; with --json, one JSON
// array of {name, ip, loginCode, rssi, identifier} and nothing else on stdout. Exit 0, or 2 when
// Bluetooth is off or missing. Log lines go to syslog (LUMERIX_LOG=stderr sends them to stderr).
#include "app/CommandLine.h"

namespace lumerix {
int runScanMode(int argc, char** argv, const CommandLine& options);
}
