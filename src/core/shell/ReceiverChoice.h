#pragma once
// Which receiver a command-line or D-Bus request means: "nearest" (any case), an identifier, or a
// receiver name. Identifiers win over names, names match case-insensitively, and among several
// equal names the first listed wins (the list is strongest first, saved receivers last).
// "nearest" is the handler's closest receiver while it is still listed; otherwise the
// closest-receiver rule applied over the list: the strongest valid receiver, a later one winning
// a tie. Saved receivers have no signal and are never the nearest.
#include <QList>
#include <QString>
#include <optional>

#include "shell/ReceiverRow.h"

namespace lumerix {

inline constexpr const char* kNearestReceiver = "nearest";

// The index of the receiver `query` names in `receivers`, or nullopt when none matches.
// closestIdentifier: the handler's current closest receiver, empty when it has none.
std::optional<qsizetype> chooseReceiver(const QList<ReceiverRow>& receivers, const QString& query,
                                        const QString& closestIdentifier = QString());

}  // namespace lumerix
