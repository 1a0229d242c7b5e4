#pragma once
// Starts the sender application by its bundle identifier: the identifier is the sender's desktop
// file ID, opened with gtk-launch through the system shell.
#include <QByteArray>

namespace lumerix {

struct SenderLauncher {
    // The shell command that opens the application whose desktop file ID is bundleIdentifier.
    static QByteArray LaunchCommand(const QByteArray& bundleIdentifier);
    // Runs LaunchCommand through system() and returns its status.
    static int launchApplication(const QByteArray& bundleIdentifier);
};

}  // namespace lumerix
