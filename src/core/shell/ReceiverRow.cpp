#include "shell/ReceiverRow.h"

#include <algorithm>
#include <cmath>

#include "text/DisplayText.h"

namespace lumerix {
namespace {

const QString kIdentifier = QStringLiteral("identifier");
const QString kName = QStringLiteral("name");
const QString kIp = QStringLiteral("ip");
const QString kLoginCode = QStringLiteral("loginCode");
const QString kRssi = QStringLiteral("rssi");
const QString kLastSeenMs = QStringLiteral("lastSeenMs");
const QString kSaved = QStringLiteral("saved");

QString columns(const QString& name, const QString& ip, const QString& code, const QString& rssi,
                const QString& identifier, int nameWidth) {
    return QStringLiteral("%1  %2  %3  %4  %5")
        .arg(DisplayText::inert(name), -nameWidth)
        .arg(DisplayText::inert(ip), -15)
        .arg(DisplayText::inert(code), -8)
        .arg(DisplayText::inert(rssi), 5)
        .arg(DisplayText::inert(identifier));
}

void putIfKnown(ReceiverDictionary& dict, const QString& key, const std::optional<QString>& value) {
    if (value) dict.insert(key, *value);
}

}  // namespace

ReceiverRow ReceiverRow::fromItem(const QVLumerixItem& item) {
    QVLumerixItem::ConnectionDetails details = item.connectionDetails();
    ReceiverRow row;
    row.identifier = item.shortenedUUID().value_or(QString());
    row.name = std::move(details.receiverName);
    row.rssi = item.aveRssi();
    row.valid = item.isValid();
    row.ip = std::move(details.ipAddress);
    row.loginCode = std::move(details.loginCode);
    row.lastSeenMs = item.aliveDuration();
    return row;
}

ReceiverRow ReceiverRow::fromSaved(const QVariantMap& entry) {
    ReceiverRow row;
    row.saved = true;
    for (auto it = entry.constBegin(); it != entry.constEnd(); ++it) {
        if (!it.value().canConvert<QString>()) continue;
        const QString value = it.value().toString();
        if (it.key() == kKeyDevice) {
            row.name = value;
        } else if (it.key() == kKeyIP) {
            row.ip = value;
        } else if (it.key() == kKeyLoginCode) {
            row.loginCode = value;
        } else {
            row.more.insert(it.key(), value);
        }
    }
    return row;
}

ReceiverRow ReceiverRow::fromMap(const QVariantMap& map) {
    ReceiverRow row;
    row.identifier = map.value(kIdentifier).toString();
    row.name = map.value(kName).toString();
    row.ip = map.value(kIp).toString();
    row.loginCode = map.value(kLoginCode).toString();
    row.saved = map.value(kSaved).toBool();
    row.rssi = map.value(kRssi).toDouble();
    if (const QVariant seen = map.value(kLastSeenMs); seen.isValid()) row.lastSeenMs = seen.toDouble();
    return row;
}

ReceiverDictionary ReceiverRow::dictionary() const {
    ReceiverDictionary dict = more;
    if (!identifier.isEmpty()) dict.insert(kKeyUUID, identifier);
    putIfKnown(dict, kKeyIP, ip);
    putIfKnown(dict, kKeyLoginCode, loginCode);
    putIfKnown(dict, kKeyDevice, name);
    return dict;
}

QVariantMap ReceiverRow::toMap() const {
    QVariantMap map{{kIdentifier, identifier},
                    {kName, nameText()},
                    {kIp, ip.value_or(QString())},
                    {kLoginCode, loginCode.value_or(QString())},
                    {kSaved, saved}};
    if (!saved) {
        map.insert(kRssi, rssi);
        map.insert(kLastSeenMs, lastSeenMs.value_or(0));
    }
    return map;
}

QJsonObject ReceiverRow::toJson() const {
    return {{kName, nameText()},
            {kIp, ip.value_or(QString())},
            {kLoginCode, loginCode.value_or(QString())},
            {kRssi, rssi},
            {kIdentifier, identifier}};
}

QString ReceiverRow::tableLine(int nameWidth) const {
    const bool noReading = saved || rssi == 0 || std::isnan(rssi);
    return columns(nameText(), ip.value_or(QString()), loginCode.value_or(QString()),
                   noReading ? QStringLiteral("-") : QString::number(rssi),
                   saved ? QStringLiteral("(saved)") : identifier, nameWidth);
}

QString ReceiverRow::tableHeader(int nameWidth) {
    return columns(QStringLiteral("NAME"), QStringLiteral("IP"), QStringLiteral("CODE"),
                   QStringLiteral("RSSI"), QStringLiteral("IDENTIFIER"), nameWidth);
}

int ReceiverRow::tableNameWidth(const QList<ReceiverRow>& rows) {
    int width = 4;
    for (const ReceiverRow& r : rows) width = std::max(width, static_cast<int>(r.nameText().size()));
    return width;
}

}  // namespace lumerix
