#include "ble/AdvertisementTrace.h"

#include <unistd.h>

#include <QBuffer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <algorithm>
#include <cmath>
#include <cstring>

#include "io/RegularFile.h"
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

void AdvertisementTrace::skip(qint64 number, const QString& reason) {
    ++skippedLines;
    if (problems.size() < kMaxProblems)
        problems.append(QStringLiteral("line %1: %2").arg(number).arg(reason));
}

void AdvertisementTrace::take(const QByteArray& line, qint64 number) {
    const QByteArray text = line.trimmed();
    if (text.isEmpty()) return;
    QString error;
    if (auto a = parseLine(text, &error))
        advertisements.push_back(std::move(*a));
    else
        skip(number, error);
}

AdvertisementTrace AdvertisementTrace::read(QIODevice& device) {
    AdvertisementTrace trace;
    QByteArray line;
    bool overlong = false;  // the line being read passed kMaxLineBytes: the rest of it is dropped
    qint64 number = 0;
    qint64 total = 0;
    const auto endOfLine = [&] {
        ++number;
        if (overlong)
            trace.skip(number, QStringLiteral("longer than %1 bytes").arg(kMaxLineBytes));
        else
            trace.take(line, number);
        line.clear();
        overlong = false;
    };
    std::vector<char> chunk(size_t{64} * 1024);
    while (!trace.truncated) {
        // One byte past the cap tells a trace at the cap from a longer one.
        const qint64 want = std::min<qint64>(static_cast<qint64>(chunk.size()), kMaxTraceBytes + 1 - total);
        qint64 n = device.read(chunk.data(), want);
        if (n <= 0) break;
        total += n;
        if (total > kMaxTraceBytes) {
            trace.truncated = true;
            --n;
        }
        const char* p = chunk.data();
        const char* const end = p + n;
        while (p < end) {
            const char* newline =
                static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
            const char* stop = newline ? newline : end;
            if (!overlong) {
                line.append(p, stop - p);
                if (line.size() > kMaxLineBytes) {
                    overlong = true;
                    line.clear();
                }
            }
            if (!newline) break;
            endOfLine();
            p = newline + 1;
        }
    }
    if (!line.isEmpty() || overlong) endOfLine();
    std::stable_sort(
        trace.advertisements.begin(), trace.advertisements.end(),
        [](const TracedAdvertisement& a, const TracedAdvertisement& b) { return a.offsetMs < b.offsetMs; });
    return trace;
}

AdvertisementTrace AdvertisementTrace::parse(const QByteArray& text) {
    QBuffer buffer;
    buffer.setData(text);
    buffer.open(QIODevice::ReadOnly);
    return read(buffer);
}

std::optional<AdvertisementTrace> AdvertisementTrace::readFile(const QString& path, QString* error) {
    QString why;
    const int fd = RegularFile::openForReading(path, true, &why);
    QFile file;
    if (fd < 0 || !file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        if (fd >= 0) ::close(fd);
        *error = QStringLiteral("cannot read the trace %1: %2").arg(path, fd < 0 ? why : file.errorString());
        return std::nullopt;
    }
    AdvertisementTrace trace = read(file);
    for (const QString& problem : trace.problems)
        Log::logf("Trace %s, %s: skipped", qUtf8Printable(path), qUtf8Printable(problem));
    if (trace.truncated)
        Log::logf("Trace %s is longer than %lld bytes: the rest is not read", qUtf8Printable(path),
                  static_cast<long long>(kMaxTraceBytes));
    if (trace.skippedLines > trace.problems.size())
        Log::logf("Trace %s: %lld lines skipped in all", qUtf8Printable(path),
                  static_cast<long long>(trace.skippedLines));
    if (trace.advertisements.empty()) {
        *error = QStringLiteral("the trace %1 holds no valid line").arg(path);
        return std::nullopt;
    }
    return trace;
}

}  // namespace lumerix
