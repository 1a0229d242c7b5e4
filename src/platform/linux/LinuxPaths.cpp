#include "platform/linux/LinuxPaths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace lumerix {

QString LinuxPaths::applicationSupportPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
}

QString LinuxPaths::executableDir() {
    if (QCoreApplication::instance()) return QCoreApplication::applicationDirPath();
    return QFileInfo(QFile::symLinkTarget(QStringLiteral("/proc/self/exe"))).absolutePath();
}

QString LinuxPaths::resourcesPath() { return resourcesPathForBinDir(executableDir()); }

QString LinuxPaths::resourcesPathForBinDir(const QString& binDir) {
    return QDir::cleanPath(binDir + QStringLiteral("/../share/lumerix"));
}

}  // namespace lumerix
