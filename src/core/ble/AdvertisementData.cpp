#include "ble/AdvertisementData.h"

#include <QStringList>

namespace lumerix {

QString AdvertisementData::description() const {
    QStringList parts;
    if (localName) parts.append(QStringLiteral("LocalName = %1").arg(*localName));
    if (manufacturerData)
        parts.append(
            QStringLiteral("ManufacturerData = <%1>").arg(QString::fromLatin1(manufacturerData->toHex())));
    return QStringLiteral("{") + parts.join(QStringLiteral("; ")) + QStringLiteral("}");
}

}  // namespace lumerix
