#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "shell/ReceiverSearch.h"

namespace lumerix {
namespace {

// Deliberately not strongest first, to show the order is the search's own.
const QList<ReceiverRow> kListed = {
    {QStringLiteral("ID-A"), QStringLiteral("Room A"), -70},
    {QStringLiteral("ID-C"), QStringLiteral("Room C"), -45},
    {QStringLiteral("ID-L"), QStringLiteral("Lab"), std::numeric_limits<double>::quiet_NaN()},
    {QStringLiteral("ID-B"), QStringLiteral("Boardroom East"), -60},
    {QString(), QStringLiteral("Boardroom"), 0, true, true},
    {QString(), QStringLiteral("No identifier"), -40},  // cannot be named as a result
};

std::vector<std::string> names(const QList<qsizetype>& found) {
    std::vector<std::string> out;
    for (qsizetype i : found) out.push_back(kListed[i].nameText().toStdString());
    return out;
}

TEST(ReceiverSearch, MatchesAndOrder) {
    struct Case {
        const char* query;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"room", {"Room C", "Boardroom East", "Room A", "Boardroom"}},
        {"ROOM c", {"Room C"}},
        {"  oom   a ", {"Boardroom East", "Room A", "Boardroom"}},  // any part, even one letter
        {"present", {"Room C", "Boardroom East", "Room A", "Lab", "Boardroom"}},
        {"Pres lab", {"Lab"}},
        {"pre board", {"Boardroom East", "Boardroom"}},
        {"pr", {}},  // too short to mean the keyword, and in no name
        {"presents", {}},
        {"room z", {}},
        {"identifier", {}},
        {"", {}},
        {"   ", {}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(names(searchReceivers(kListed, searchTerms(QString::fromUtf8(c.query)))), c.expected)
            << c.query;
    }
}

TEST(ReceiverSearch, ResultIdsFollowTheReceiverNotItsPosition) {
    QList<ReceiverRow> later = kListed;
    later.removeFirst();
    later.prepend({QStringLiteral("ID-N"), QStringLiteral("Newcomer"), -30});
    struct Case {
        QString id;
        std::optional<qsizetype> before;
        std::optional<qsizetype> after;
    };
    const Case cases[] = {
        {QStringLiteral("ID-C"), 1, 1},
        {QStringLiteral("ID-A"), 0, std::nullopt},  // gone
        {QStringLiteral("saved:Boardroom"), 4, 4},
        {QStringLiteral("saved:Room C"), std::nullopt, std::nullopt},  // a nearby name is not saved
        {QString(), std::nullopt, std::nullopt},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(findSearchResult(kListed, c.id), c.before) << qPrintable(c.id);
        EXPECT_EQ(findSearchResult(later, c.id), c.after) << qPrintable(c.id);
        if (c.before) {
            EXPECT_EQ(searchResultId(kListed[*c.before]), c.id);
        }
    }
}

TEST(ReceiverSearch, DescriptionTellsSignal) {
    EXPECT_EQ(searchResultDescription(kListed[1]), QStringLiteral("Nearby, strong signal (-45 dBm)"));
    EXPECT_EQ(searchResultDescription(kListed[3]), QStringLiteral("Nearby, strong signal (-60 dBm)"));
    EXPECT_EQ(searchResultDescription(kListed[0]), QStringLiteral("Nearby, fair signal (-70 dBm)"));
    EXPECT_EQ(searchResultDescription({QStringLiteral("x"), QStringLiteral("x"), -76}),
              QStringLiteral("Nearby, weak signal (-76 dBm)"));
    EXPECT_EQ(searchResultDescription(kListed[2]), QStringLiteral("Nearby, signal unknown"));
    EXPECT_EQ(searchResultDescription(kListed[4]), QStringLiteral("Saved receiver"));
}

}  // namespace
}  // namespace lumerix
