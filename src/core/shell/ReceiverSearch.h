#pragma once
// What launcher searches (desktop overview search, run dialogs) find among the listed receivers.
// Every search term must match: a part of the receiver's name (any case), or the start of the
// word "present" (at least "pre"), which alone lists every receiver. Nearby receivers come
// strongest first, then the saved ones in their own order. A result is named by the receiver's
// identifier (saved receivers, which have none, by "saved:" and their name), so a result shown a
// while ago still reaches the same receiver after the list has changed.
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

#include "shell/ReceiverChoice.h"

namespace lumerix {

inline constexpr const char* kPresentKeyword = "present";
inline constexpr const char* kSavedResultPrefix = "saved:";

// Indices into `receivers` of those all `terms` match, in the order results are shown. No terms
// (or only blank ones): no results.
QList<qsizetype> searchReceivers(const QList<ReceiverRow>& receivers, const QStringList& terms);

// The result name of a receiver, and the receiver a result name stands for (nullopt once gone).
QString searchResultId(const ReceiverRow& receiver);
std::optional<qsizetype> findSearchResult(const QList<ReceiverRow>& receivers, const QString& resultId);

// The line shown under a result: the signal of a nearby receiver, or that it is saved.
QString searchResultDescription(const ReceiverRow& receiver);

// Splits what the user typed into terms (white space separated).
QStringList searchTerms(const QString& query);

}  // namespace lumerix
