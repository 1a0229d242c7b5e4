#pragma once
// Diagnostic: `lumerix --gatt-read IDENTIFIER [--timeout S] [--demo]` scans until the receiver
// with that identifier is seen, reads its connection information over GATT and prints the five
// fields. Exit 0 when read, 2 when Bluetooth is unavailable, 3 on timeout (20 s by default).
#include "app/CommandLine.h"

namespace lumerix {
int runGattReadMode(int argc, char** argv, const CommandLine& options);
}
