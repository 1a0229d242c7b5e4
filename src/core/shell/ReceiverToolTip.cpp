#include "shell/ReceiverToolTip.h"

#include <cmath>

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

QString ReceiverToolTip::text(const std::vector<Line>& lines, double nowMs) {
    QString out = QStringLiteral("Lumerix");
    if (lines.empty()) return out + QStringLiteral("\nNo receivers nearby");
    const size_t shown = std::min(lines.size(), kMaxLines);
    for (size_t i = 0; i < shown; ++i) {
        const Line& line = lines[i];
        out += QLatin1Char('\n') + DisplayText::inert(line.name) + QLatin1Char(' ') + kEmDash +
               QLatin1Char(' ') + signalText(line.rssi);
        if (line.lastHeardMs) {
            const double seconds = std::floor(std::max(0.0, nowMs - *line.lastHeardMs) / 1000.0);
            out += QStringLiteral(", %1 s ago").arg(static_cast<qint64>(seconds));
        }
    }
    if (lines.size() > shown) out += QStringLiteral("\nand %1 more").arg(lines.size() - shown);
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

void ReceiverToolTip::refresh() {
    pending_.reset();
    const std::vector<Line> lines = source_();
    const QString next = text(lines, queue_->clock().nowMs());
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
