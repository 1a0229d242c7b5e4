#pragma once
// The tray icon's tooltip: one line per listed receiver with its signal and how long ago it was
// last heard ("Boardroom — −57 dBm, 2 s ago"). The text is pushed at most once a second, however
// often the list changes, and while receivers are listed it is refreshed every second so that
// their ages move on even when nothing is heard.
#include <QString>
#include <functional>
#include <optional>
#include <vector>

#include "dispatch/DispatchQueue.h"

namespace lumerix {

class ReceiverToolTip {
public:
    struct Line {
        QString name;
        double rssi = 0;                    // dBm
        std::optional<double> lastHeardMs;  // wall time of the last sample
    };
    static constexpr double kMinIntervalMs = 1000.0;
    // Receivers beyond this many are counted on one last line.
    static constexpr size_t kMaxLines = 10;

    // The tooltip for these receivers (in the order given) at wall time nowMs.
    static QString text(const std::vector<Line>& lines, double nowMs);

    // source lists the receivers when a refresh runs; show receives each new text. Both run on
    // queue, which is also where setNeedsUpdate() must be called.
    ReceiverToolTip(DispatchQueue* queue, std::function<std::vector<Line>()> source,
                    std::function<void(const QString&)> show);
    ~ReceiverToolTip();
    ReceiverToolTip(const ReceiverToolTip&) = delete;
    ReceiverToolTip& operator=(const ReceiverToolTip&) = delete;

    // The list changed: shown now when the last push is a second old, else when it will be.
    void setNeedsUpdate();

private:
    void refresh();
    void refreshAfter(double delayMs);

    DispatchQueue* queue_;
    std::function<std::vector<Line>()> source_;
    std::function<void(const QString&)> show_;
    std::optional<double> lastPushMs_;  // monotonic
    std::optional<QString> shown_;
    TaskHandle pending_;
};

}  // namespace lumerix
