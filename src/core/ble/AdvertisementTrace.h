#pragma once
// Advertisement traces: one JSON object per line, as a radio heard them, so that a user can send
// what their adapter saw and tests can replay it. A line holds the time offset in milliseconds
// from the start of recording, the peripheral identifier, the local name (null when absent), the
// RSSI in dBm and the manufacturer data as hex (null when absent):
//   {"offsetMs":1520.5,"identifier":"...","localName":"LX","rssi":-61,"manufacturerData":"ffff01..."}
#include <QByteArray>
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
    // In order of time offset (a stable sort of the lines read).
    std::vector<TracedAdvertisement> advertisements;
    // "line N: reason" for every line that was skipped.
    QStringList problems;

    // One line, without its line end.
    static QByteArray formatLine(const TracedAdvertisement& advertisement);
    // One line; nullopt with *error set when it is not a valid trace line.
    static std::optional<TracedAdvertisement> parseLine(const QByteArray& line, QString* error);
    // Reads every line; blank lines are ignored, bad ones reported in problems and skipped.
    static AdvertisementTrace parse(const QByteArray& text);
    // nullopt with *error set when the file cannot be read; problems are also logged.
    static std::optional<AdvertisementTrace> readFile(const QString& path, QString* error);
};

}  // namespace lumerix
