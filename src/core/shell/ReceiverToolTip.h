#pragma once
// The tray icon's tooltip: what the radio is doing (off, no adapter, bluetoothd not running,
// searching), then one line per listed receiver with its signal and how long ago it was last
// heard ("Boardroom — −57 dBm, 2 s ago"). The text is pushed at most once a second, however
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
    // The radio as the user needs to know it, from the central's BleState.
    enum class Radio { Checking, On, Off, NoAdapter, ServiceDown, Denied };
    static Radio radioFor(int bleState);
    // One line saying what the radio does, without receivers ("Searching for receivers" when on).
    static QString radioText(Radio radio);

    struct Line {
        QString name;
        double rssi = 0;                    // dBm
        std::optional<double> lastHeardMs;  // wall time of the last sample
    };
    static constexpr double kMinIntervalMs = 1000.0;
    // Receivers beyond this many are counted on one last line.
    static constexpr size_t kMaxLines = 10;

    // The tooltip for these receivers (in the order given) at wall time nowMs. Unless the radio is
    // on, its state comes first; receivers heard before it went stay listed until they age out.
    static QString text(const std::vector<Line>& lines, double nowMs, Radio radio = Radio::On);

    // source lists the receivers when a refresh runs; show receives each new text. Both run on
    // queue, which is also where setNeedsUpdate() must be called.
    ReceiverToolTip(DispatchQueue* queue, std::function<std::vector<Line>()> source,
                    std::function<void(const QString&)> show);
    ~ReceiverToolTip();
    ReceiverToolTip(const ReceiverToolTip&) = delete;
    ReceiverToolTip& operator=(const ReceiverToolTip&) = delete;

    // The list changed: shown now when the last push is a second old, else when it will be.
    void setNeedsUpdate();
    // The radio's state changed; shown like a list change.
    void setRadio(Radio radio);
    Radio radio() const { return radio_; }

private:
    void refresh();
    void refreshAfter(double delayMs);

    DispatchQueue* queue_;
    std::function<std::vector<Line>()> source_;
    std::function<void(const QString&)> show_;
    std::optional<double> lastPushMs_;  // monotonic
    std::optional<QString> shown_;
    Radio radio_ = Radio::Checking;
    TaskHandle pending_;
};

}  // namespace lumerix
