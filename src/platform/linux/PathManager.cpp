#include "platform/linux/PathManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QStorageInfo>

namespace lumerix {

namespace {

std::optional<QString> underDataHome(const QString& sub) {
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty()) return std::nullopt;
    return sub.isEmpty() ? base : base + QLatin1Char('/') + sub;
}

bool readFlag(const QString& file) {
    QFile f(file);
    if (!f.open(QIODevice::ReadOnly)) return false;
    return f.read(8).trimmed() == "1";
}

}  // namespace

bool PathManager::CheckRemovableDiskPath(const QString& path) {
    const QString sysClassBlock = QStringLiteral("/sys/class/block");
    if (path.isEmpty()) return false;
    const QStorageInfo volume(path);
    if (!volume.isValid()) return false;
    const QString device = QString::fromUtf8(volume.device());
    if (!device.startsWith(QLatin1String("/dev/"))) return false;  // tmpfs, overlay, network
    // /dev/mapper names and by-id links resolve to the kernel's name of the node.
    const QString node = QFileInfo(QFileInfo(device).canonicalFilePath()).fileName();
    if (node.isEmpty()) return false;
    const QString entry = QFileInfo(sysClassBlock + QLatin1Char('/') + node).canonicalFilePath();
    if (entry.isEmpty()) return false;
    // A partition carries no flag of its own; its disk is the parent folder.
    if (QFileInfo::exists(entry + QLatin1String("/partition"))) {
        return readFlag(QFileInfo(entry).absolutePath() + QLatin1String("/removable"));
    }
    return readFlag(entry + QLatin1String("/removable"));
}

bool PathManager::ExecuteApplication(const QString& path) {
    if (path.isEmpty()) return false;
    return QProcess::startDetached(QStringLiteral("xdg-open"), {path});
}

std::optional<QString> PathManager::GetApplicationSupportPath() { return underDataHome(QString()); }

std::optional<QString> PathManager::GetApplicationPath() {
    return underDataHome(QStringLiteral("applications"));
}

std::optional<QString> PathManager::GetDocumentPath() { return underDataHome(QStringLiteral("doc")); }

QString PathManager::GetExecutablePath() {
    if (QCoreApplication::instance()) return QCoreApplication::applicationFilePath();
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
}

QString PathManager::GetAppPath() {
    const QFileInfo exe(GetExecutablePath());
    return QDir::cleanPath(exe.absolutePath() + QLatin1String("/.."));
}

QString PathManager::GetAppContentsPath() {
    QString name = QCoreApplication::applicationName();
    if (name.isEmpty()) name = QFileInfo(GetExecutablePath()).fileName();
    return QStringLiteral("%1/%2/Contents").arg(GetAppPath(), name);
}

QString PathManager::GetResourcePath() { return GetAppPath() + QLatin1String("/share/lumerix"); }

}  // namespace lumerix
