#include "platform/linux/DesktopEntry.h"

#include <QStandardPaths>

namespace lumerix {

QString desktopEntryPath(const QString& desktopFileId) {
    // The environment is read on every call, so a sender installed meanwhile is found.
    return QStandardPaths::locate(QStandardPaths::ApplicationsLocation,
                                  desktopFileId + QStringLiteral(".desktop"));
}

}  // namespace lumerix
