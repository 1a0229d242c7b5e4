#include "shell/ReceiverToolTip.h"

#include <QCoreApplication>
#include <cmath>

#include "ble/BleCentral.h"
#include "text/DisplayText.h"

namespace lumerix {

namespace {

const QChar kEmDash(0x2014);
const QChar kMinus(0x2212);

QString signalText(double rssi) {
    const long dbm = std::lround(rssi);
    const QString digits = QString::number(std::labs(dbm));
    return (dbm < 0 ? QString(kMinus) + digits : digits) + QStringLiteral(" dBm");
}

}  // namespace

ReceiverToolTip::Radio ReceiverToolTip::radioFor(int bleState) {
    switch (bleState) {
        case BleStatePoweredOn:
            return Radio::On;
        case BleStatePoweredOff:
            return Radio::Off;
        case BleStateUnsupported:
            return Radio::NoAdapter;
        case BleStateUnauthorized:
            return Radio::Denied;
        case BleStateUnknown:
            return Radio::ServiceDown;
        default:
            return Radio::Checking;
    }
}

QString ReceiverToolTip::radioText(Radio radio) {
    switch (radio) {
        case Radio::On:
            return QCoreApplication::translate("ReceiverToolTip", "Searching for receivers");
        case Radio::Off:
            return QCoreApplication::translate("ReceiverToolTip", "Bluetooth is off");
        case Radio::NoAdapter:
            return QCoreApplication::translate("ReceiverToolTip", "No Bluetooth adapter");
        case Radio::ServiceDown:
            return QCoreApplication::translate("ReceiverToolTip",
                                               "Bluetooth service (bluetoothd) is not running");
        case Radio::Denied:
            return QCoreApplication::translate("ReceiverToolTip", "Bluetooth access denied");
        case Radio::Checking:
            break;
    }
    return QCoreApplication::translate("ReceiverToolTip", "Checking Bluetooth");
}

QString ReceiverToolTip::text(const std::vector<Line>& lines, double nowMs, Radio radio) {
    QString out = QStringLiteral("Lumerix");
    // Receivers heard mean the radio works, whatever state was last reported.
    const bool radioWorks = radio == Radio::On || radio == Radio::Checking;
    if (!radioWorks || lines.empty()) out += QLatin1Char('\n') + radioText(radio);
    const size_t shown = std::min(lines.size(), kMaxLines);
    for (size_t i = 0; i < shown; ++i) {
        const Line& line = lines[i];
        out += QLatin1Char('\n') + DisplayText::inert(line.name) + QLatin1Char(' ') + kEmDash +
               QLatin1Char(' ') + signalText(line.rssi);
        if (line.lastHeardMs) {
            const double seconds = std::floor(std::max(0.0, nowMs - *line.lastHeardMs) / 1000.0);
            out += QCoreApplication::translate("ReceiverToolTip", ", %1 s ago")
                       .arg(static_cast<qint64>(seconds));
        }
    }
    if (lines.size() > shown)
        out += QLatin1Char('\n') +
               QCoreApplication::translate("ReceiverToolTip", "and %1 more").arg(lines.size() - shown);
    return out;
}

ReceiverToolTip::ReceiverToolTip(DispatchQueue* queue, std::function<std::vector<Line>()> source,
                                 std::function<void(const QString&)> show)
    : queue_(queue), source_(std::move(source)), show_(std::move(show)) {}

ReceiverToolTip::~ReceiverToolTip() {
    if (pending_) pending_->cancel();
}

void ReceiverToolTip::setNeedsUpdate() {
    if (pending_) return;  // the refresh already due reads the list as it is then
    const double now = queue_->clock().monotonicMs();
    if (!lastPushMs_ || now - *lastPushMs_ >= kMinIntervalMs) {
        refresh();
    } else {
        refreshAfter(*lastPushMs_ + kMinIntervalMs - now);
    }
}

void ReceiverToolTip::setRadio(Radio radio) {
    if (radio == radio_) return;
    radio_ = radio;
    setNeedsUpdate();
}

void ReceiverToolTip::refresh() {
    pending_.reset();
    const std::vector<Line> lines = source_();
    const QString next = text(lines, queue_->clock().nowMs(), radio_);
    if (!shown_ || *shown_ != next) {
        shown_ = next;
        lastPushMs_ = queue_->clock().monotonicMs();
        show_(next);
    }
    // The ages shown go stale within a second.
    if (!lines.empty()) refreshAfter(kMinIntervalMs);
}

void ReceiverToolTip::refreshAfter(double delayMs) {
    if (pending_) pending_->cancel();
    pending_ = queue_->after(delayMs, [this] { refresh(); });
}

}  // namespace lumerix
