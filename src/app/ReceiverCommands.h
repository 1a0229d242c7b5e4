#pragma once
// `lumerix --list [--json]` and `lumerix --connect NAME|IDENTIFIER|nearest`: through the running
// tray's D-Bus service when one holds its name, otherwise on their own: scan up to the timeout
// (5 s unless given), then list, or choose and run the connect action. When the sender had to be
// launched, the command listener stays up until the sender has fetched its receiver or 30 s
// have passed. Exit 0 when listed or handed off, 3 when no such receiver was found, 2 when
// Bluetooth is off or missing, 1 when the sender never asked.
namespace lumerix {

struct CommandLine;

int runListMode(int argc, char** argv, const CommandLine& options);
int runConnectMode(int argc, char** argv, const CommandLine& options);

}  // namespace lumerix
