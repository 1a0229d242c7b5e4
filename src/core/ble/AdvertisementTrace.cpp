#include "ble/AdvertisementTrace.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <algorithm>
#include <cmath>

#include "log/Log.h"

namespace lumerix {
namespace {

const QString kOffset = QStringLiteral("offsetMs");
const QString kIdentifier = QStringLiteral("identifier");
const QString kLocalName = QStringLiteral("localName");
const QString kRssi = QStringLiteral("rssi");
const QString kManufacturerData = QStringLiteral("manufacturerData");

bool isHex(const QString& text) {
    if (text.size() % 2 != 0) return false;
    return std::all_of(text.begin(), text.end(), [](QChar c) {
        return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
    });
}

}  // namespace

QByteArray AdvertisementTrace::formatLine(const TracedAdvertisement& a) {
    QJsonObject o;
    o.insert(kOffset, std::round(a.offsetMs * 10.0) / 10.0);
    o.insert(kIdentifier, a.identifier);
    o.insert(kLocalName, a.data.localName ? QJsonValue(*a.data.localName) : QJsonValue());
    o.insert(kRssi, a.rssi);
    o.insert(kManufacturerData, a.data.manufacturerData
                                    ? QJsonValue(QString::fromLatin1(a.data.manufacturerData->toHex()))
                                    : QJsonValue());
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

std::optional<TracedAdvertisement> AdvertisementTrace::parseLine(const QByteArray& line, QString* error) {
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(line, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = QStringLiteral("not JSON (%1)").arg(parseError.errorString());
        return std::nullopt;
    }
    if (!doc.isObject()) {
        *error = QStringLiteral("not a JSON object");
        return std::nullopt;
    }
    const QJsonObject o = doc.object();
    TracedAdvertisement a;
    const QJsonValue offset = o.value(kOffset);
    if (!offset.isDouble() || !(offset.toDouble() >= 0) || !std::isfinite(offset.toDouble())) {
        *error = QStringLiteral("\"offsetMs\" must be a number of milliseconds, 0 or more");
        return std::nullopt;
    }
    a.offsetMs = offset.toDouble();
    const QJsonValue identifier = o.value(kIdentifier);
    if (!identifier.isString() || identifier.toString().isEmpty()) {
        *error = QStringLiteral("\"identifier\" must be a non-empty string");
        return std::nullopt;
    }
    a.identifier = identifier.toString();
    const QJsonValue rssi = o.value(kRssi);
    if (!rssi.isDouble() || !std::isfinite(rssi.toDouble())) {
        *error = QStringLiteral("\"rssi\" must be a number");
        return std::nullopt;
    }
    a.rssi = rssi.toDouble();
    const QJsonValue name = o.value(kLocalName);
    if (name.isString()) {
        a.data.localName = name.toString();
    } else if (!name.isNull() && !name.isUndefined()) {
        *error = QStringLiteral("\"localName\" must be a string or null");
        return std::nullopt;
    }
    const QJsonValue data = o.value(kManufacturerData);
    if (data.isString()) {
        if (!isHex(data.toString())) {
            *error = QStringLiteral("\"manufacturerData\" is not an even number of hex digits");
            return std::nullopt;
        }
        a.data.manufacturerData = QByteArray::fromHex(data.toString().toLatin1());
    } else if (!data.isNull() && !data.isUndefined()) {
        *error = QStringLiteral("\"manufacturerData\" must be a hex string or null");
        return std::nullopt;
    }
    return a;
}

AdvertisementTrace AdvertisementTrace::parse(const QByteArray& text) {
    AdvertisementTrace trace;
    const QList<QByteArray> lines = text.split('\n');
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        if (line.isEmpty()) continue;
        QString error;
        if (auto a = parseLine(line, &error))
            trace.advertisements.push_back(std::move(*a));
        else
            trace.problems.append(QStringLiteral("line %1: %2").arg(i + 1).arg(error));
    }
    std::stable_sort(
        trace.advertisements.begin(), trace.advertisements.end(),
        [](const TracedAdvertisement& a, const TracedAdvertisement& b) { return a.offsetMs < b.offsetMs; });
    return trace;
}

std::optional<AdvertisementTrace> AdvertisementTrace::readFile(const QString& path, QString* error) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read the trace %1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    AdvertisementTrace trace = parse(file.readAll());
    for (const QString& problem : trace.problems)
        Log::logf("Trace %s, %s: skipped", qUtf8Printable(path), qUtf8Printable(problem));
    return trace;
}

}  // namespace lumerix
