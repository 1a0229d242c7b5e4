#pragma once
// Runs a launch command through the system shell and waits for the command itself (not for the
// program it starts). The sender is started with gtk-launch and its desktop-file ID.
#include <QByteArray>

namespace lumerix {

struct ShellLauncher {
    static constexpr const char* kLaunchFormat = "gtk-launch \"%s\"";

    // The command line that starts the application with this desktop-file ID.
    static QByteArray launchCommandFor(const char* desktopId);
    // std::system's result; -1 when no shell could be run.
    static int run(const QByteArray& command);
};

}  // namespace lumerix
