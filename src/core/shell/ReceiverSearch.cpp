#include "shell/ReceiverSearch.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <algorithm>
#include <cmath>

#include "receiver/SignalStrength.h"

namespace lumerix {
namespace {

constexpr qsizetype kMinimumKeywordPrefix = 3;

bool termMatches(const ReceiverRow& receiver, const QString& term) {
    if (term.size() >= kMinimumKeywordPrefix &&
        QLatin1String(kPresentKeyword).startsWith(term, Qt::CaseInsensitive))
        return true;
    return receiver.nameText().contains(term, Qt::CaseInsensitive);
}

}  // namespace

QStringList searchTerms(const QString& query) {
    static const QRegularExpression space(QStringLiteral("\\s+"));
    return query.split(space, Qt::SkipEmptyParts);
}

QList<qsizetype> searchReceivers(const QList<ReceiverRow>& receivers, const QStringList& terms) {
    QStringList wanted;
    for (const QString& term : terms) {
        if (const QString t = term.trimmed(); !t.isEmpty()) wanted.append(t);
    }
    QList<qsizetype> found;
    if (wanted.isEmpty()) return found;
    for (qsizetype i = 0; i < receivers.size(); ++i) {
        const ReceiverRow& r = receivers[i];
        if (!r.saved && r.identifier.isEmpty()) continue;  // nothing to name the result by
        if (std::all_of(wanted.cbegin(), wanted.cend(), [&r](const QString& t) { return termMatches(r, t); }))
            found.append(i);
    }
    // Nearby before saved; the nearby ones strongest first.
    const auto saved = std::stable_partition(found.begin(), found.end(),
                                             [&receivers](qsizetype i) { return !receivers[i].saved; });
    sortStrongestFirst(found.begin(), saved, [&receivers](qsizetype i) { return receivers[i].rssi; });
    return found;
}

QString searchResultId(const ReceiverRow& receiver) {
    return receiver.saved ? QLatin1String(kSavedResultPrefix) + receiver.nameText() : receiver.identifier;
}

std::optional<qsizetype> findSearchResult(const QList<ReceiverRow>& receivers, const QString& resultId) {
    if (resultId.isEmpty()) return std::nullopt;
    for (qsizetype i = 0; i < receivers.size(); ++i) {
        if (searchResultId(receivers[i]) == resultId) return i;
    }
    return std::nullopt;
}

QString searchResultDescription(const ReceiverRow& receiver) {
    if (receiver.saved) return QCoreApplication::translate("ReceiverSearch", "Saved receiver");
    if (std::isnan(receiver.rssi))
        return QCoreApplication::translate("ReceiverSearch", "Nearby, signal unknown");
    const QString dbm = QString::number(static_cast<int>(std::lround(receiver.rssi)));
    if (receiver.rssi >= -60)
        return QCoreApplication::translate("ReceiverSearch", "Nearby, strong signal (%1 dBm)").arg(dbm);
    if (receiver.rssi >= -75)
        return QCoreApplication::translate("ReceiverSearch", "Nearby, fair signal (%1 dBm)").arg(dbm);
    return QCoreApplication::translate("ReceiverSearch", "Nearby, weak signal (%1 dBm)").arg(dbm);
}

}  // namespace lumerix
