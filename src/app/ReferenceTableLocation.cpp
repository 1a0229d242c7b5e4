#include "app/ReferenceTableLocation.h"

#include <QFileInfo>
#include <QStandardPaths>

#include "shell/AppDelegate.h"

namespace lumerix {

QString ReferenceTableLocation::defaultFolder(bool demo, const QString& resources) {
    if (demo) return resources + QLatin1String("/demo");
    const QString site = QStandardPaths::locate(
        QStandardPaths::GenericConfigLocation,
        QLatin1String("lumerix/") + QLatin1String(AppDelegate::kDefaultReferenceTableFileName));
    if (!site.isEmpty()) return QFileInfo(site).absolutePath();
    return resources;
}

QString ReferenceTableLocation::demoSupportFolder() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QLatin1String("/lumerix-demo");
}

QString ReferenceTableLocation::savedTable(const QString& applicationSupport) {
    return applicationSupport + QLatin1String("/Tavik/Lumerix/") +
           QLatin1String(AppDelegate::kReferenceTableFileName);
}

}  // namespace lumerix
