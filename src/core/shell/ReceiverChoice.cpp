#include "shell/ReceiverChoice.h"

#include "receiver/SignalStrength.h"

namespace lumerix {
namespace {

std::optional<qsizetype> nearest(const QList<ReceiverRow>& receivers, const QString& closestIdentifier) {
    if (!closestIdentifier.isEmpty()) {
        for (qsizetype i = 0; i < receivers.size(); ++i) {
            const ReceiverRow& r = receivers[i];
            if (!r.saved && r.valid && r.identifier.compare(closestIdentifier, Qt::CaseInsensitive) == 0)
                return i;
        }
    }
    std::optional<qsizetype> closest;
    for (qsizetype i = 0; i < receivers.size(); ++i) {
        const ReceiverRow& r = receivers[i];
        if (r.saved || !r.valid) continue;
        // The current one stays only when strictly stronger (a NaN comparison fails: newcomer wins).
        if (closest && strongerThan(receivers[*closest].rssi, r.rssi)) continue;
        closest = i;
    }
    return closest;
}

}  // namespace

std::optional<qsizetype> chooseReceiver(const QList<ReceiverRow>& receivers, const QString& query,
                                        const QString& closestIdentifier) {
    const QString wanted = query.trimmed();
    if (wanted.isEmpty()) return std::nullopt;
    if (wanted.compare(QLatin1String(kNearestReceiver), Qt::CaseInsensitive) == 0)
        return nearest(receivers, closestIdentifier);
    for (qsizetype i = 0; i < receivers.size(); ++i) {
        const QString& id = receivers[i].identifier;
        if (!id.isEmpty() && id.compare(wanted, Qt::CaseInsensitive) == 0) return i;
    }
    for (qsizetype i = 0; i < receivers.size(); ++i) {
        if (receivers[i].nameText().compare(wanted, Qt::CaseInsensitive) == 0) return i;
    }
    return std::nullopt;
}

}  // namespace lumerix
