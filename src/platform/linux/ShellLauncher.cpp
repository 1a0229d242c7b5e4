#include "platform/linux/ShellLauncher.h"

#include <cstdlib>

#include "log/Log.h"

namespace lumerix {

QByteArray ShellLauncher::launchCommandFor(const char* desktopId) {
    return Log::format(kLaunchFormat, desktopId).toUtf8();
}

int ShellLauncher::run(const QByteArray& command) { return std::system(command.constData()); }

}  // namespace lumerix
