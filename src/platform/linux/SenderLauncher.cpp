#include "platform/linux/SenderLauncher.h"

#include <cstdlib>

namespace lumerix {

QByteArray SenderLauncher::LaunchCommand(const QByteArray& bundleIdentifier) {
    return QByteArray("gtk-launch \"") + bundleIdentifier + '"';
}

int SenderLauncher::launchApplication(const QByteArray& bundleIdentifier) {
    return std::system(LaunchCommand(bundleIdentifier).constData());
}

}  // namespace lumerix
