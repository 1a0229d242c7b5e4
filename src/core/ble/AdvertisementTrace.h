#pragma once
// Advertisement traces: one JSON object per line, as a radio heard them, so that a user can send
// what their adapter saw and tests can replay it. A line holds the time offset in milliseconds
// from the start of recording, the peripheral identifier, the local name (null when absent), the
// RSSI in dBm and the manufacturer data as hex (null when absent):
//   {"offsetMs":1520.5,"identifier":"...","localName":"LX","rssi":-61,"manufacturerData":"ffff01..."}
#include <QByteArray>
#include <QIODevice>
#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

#include "ble/AdvertisementData.h"

namespace lumerix {

struct TracedAdvertisement {
    double offsetMs = 0;
    QString identifier;
    AdvertisementData data;
    double rssi = 0;
    bool operator==(const TracedAdvertisement&) const = default;
};

struct AdvertisementTrace {
    // A longer line is skipped unread; a longer trace is read up to here, and the rest reported.
    static constexpr qint64 kMaxLineBytes = 4096;
    static constexpr qint64 kMaxTraceBytes = qint64{64} * 1024 * 1024;
    // Problems kept word for word; the others are only counted.
    static constexpr qsizetype kMaxProblems = 20;

    // In order of time offset (a stable sort of the lines read).
    std::vector<TracedAdvertisement> advertisements;
    // "line N: reason" for the first kMaxProblems lines that were skipped.
    QStringList problems;
    qint64 skippedLines = 0;
    bool truncated = false;  // the trace went on past kMaxTraceBytes

    // One line, without its line end.
    static QByteArray formatLine(const TracedAdvertisement& advertisement);
    // One line; nullopt with *error set when it is not a valid trace line.
    static std::optional<TracedAdvertisement> parseLine(const QByteArray& line, QString* error);
    // Reads line by line up to the device's end or kMaxTraceBytes; blank lines are ignored, bad
    // and overlong ones counted, reported in problems and skipped.
    static AdvertisementTrace read(QIODevice& device);
    static AdvertisementTrace parse(const QByteArray& text);
    // The regular file at path (a link to one is followed); nullopt with *error set when it cannot
    // be read or holds no valid line. Problems are logged.
    static std::optional<AdvertisementTrace> readFile(const QString& path, QString* error);

private:
    void take(const QByteArray& line, qint64 number);
    void skip(qint64 number, const QString& reason);
};

}  // namespace lumerix
