#include <gtest/gtest.h>

#include <limits>

#include "shell/ReceiverChoice.h"

namespace lumerix {
namespace {

TEST(ReceiverChoice, NamesIdentifiersAndNearest) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const QString idA = QStringLiteral("00000000-0000-0000-0000-00000000000A");
    const QString idB = QStringLiteral("00000000-0000-0000-0000-00000000000B");
    const QString idC = QStringLiteral("00000000-0000-0000-0000-00000000000C");
    // Strongest first, as listed; the saved receiver last.
    const QList<ReceiverRow> listed = {
        {idA, QStringLiteral("Alpha"), -50},
        {idB, QStringLiteral("Bravo"), -60},
        {idC, QStringLiteral("Alpha"), -70},
        {QString(), QStringLiteral("Boardroom"), 0, true, true},
    };
    QList<ReceiverRow> stale = listed;
    stale[0].valid = false;
    const QList<ReceiverRow> tie = {{idA, QStringLiteral("Alpha"), -60}, {idB, QStringLiteral("Bravo"), -60}};
    const QList<ReceiverRow> withNan = {{idA, QStringLiteral("Alpha"), -60},
                                        {idB, QStringLiteral("Bravo"), nan}};
    const QList<ReceiverRow> onlySaved = {{QString(), QStringLiteral("Boardroom"), 0, true, true}};
    // A receiver named like an identifier of another: the identifier wins.
    const QList<ReceiverRow> nameLikeId = {{idA, idB, -50}, {idB, QStringLiteral("Bravo"), -60}};

    struct Case {
        const char* what;
        const QList<ReceiverRow>* list;
        QString query;
        QString closest;
        std::optional<qsizetype> expected;
    };
    const Case cases[] = {
        {"name in any case", &listed, QStringLiteral("bRAVO"), {}, 1},
        {"equal names: the first listed (strongest)", &listed, QStringLiteral("alpha"), {}, 0},
        {"identifier in lower case", &listed, idC.toLower(), {}, 2},
        {"saved receiver by name", &listed, QStringLiteral("boardroom"), {}, 3},
        {"unknown name", &listed, QStringLiteral("Charlie"), {}, std::nullopt},
        {"empty query", &listed, QStringLiteral("  "), {}, std::nullopt},
        {"identifier beats a name", &nameLikeId, idB, {}, 1},
        {"nearest without a closest receiver: the strongest", &listed, QStringLiteral("Nearest"), {}, 0},
        {"nearest is the handler's closest while listed", &listed, QStringLiteral("nearest"), idB, 1},
        {"a closest receiver no longer listed is ignored", &listed, QStringLiteral("nearest"),
         QStringLiteral("00000000-0000-0000-0000-0000000000FF"), 0},
        {"an invalid receiver is never nearest", &stale, QStringLiteral("nearest"), idA, 1},
        {"a tie goes to the later receiver", &tie, QStringLiteral("nearest"), {}, 1},
        {"a NaN signal wins its comparison", &withNan, QStringLiteral("nearest"), {}, 1},
        {"saved receivers are never nearest", &onlySaved, QStringLiteral("nearest"), {}, std::nullopt},
    };
    for (const Case& c : cases) EXPECT_EQ(chooseReceiver(*c.list, c.query, c.closest), c.expected) << c.what;
}

}  // namespace
}  // namespace lumerix
