#include "ble/BleTypes.h"

#include <QUuid>

namespace lumerix {
namespace {
const QByteArray kBaseTail = QByteArray::fromHex("00001000800000805f9b34fb");
}

BleUuid BleUuid::fromUInt16(quint16 v) {
    BleUuid u;
    u.bytes_ = QByteArray(2, '\0');
    u.bytes_[0] = static_cast<char>(v >> 8);
    u.bytes_[1] = static_cast<char>(v & 0xFF);
    return u;
}

BleUuid BleUuid::fromString(const QString& text) {
    QString t = text.trimmed();
    if (t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) t = t.mid(2);
    if (t.size() == 4) {
        bool ok = false;
        uint v = t.toUInt(&ok, 16);
        if (ok) return fromUInt16(static_cast<quint16>(v));
    }
    QUuid q(t);
    if (q.isNull() && t.compare(QLatin1String("00000000-0000-0000-0000-000000000000")) != 0) return {};
    QByteArray raw = q.toRfc4122();
    BleUuid u;
    if (raw.mid(0, 2) == QByteArray(2, '\0') && raw.mid(4) == kBaseTail)
        u.bytes_ = raw.mid(2, 2);
    else
        u.bytes_ = raw;
    return u;
}

QString BleUuid::toString() const {
    if (bytes_.size() == 2) return QString::fromLatin1(bytes_.toHex()).toUpper();
    if (bytes_.size() == 16) return QUuid::fromRfc4122(bytes_).toString(QUuid::WithoutBraces).toUpper();
    return QString::fromLatin1(bytes_.toHex()).toUpper();
}

}  // namespace lumerix
