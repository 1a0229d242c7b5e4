#include "shell/ReceiverToolTip.h"

#include <gtest/gtest.h>

#include <QStringList>

#include "dispatch/ManualQueue.h"

namespace lumerix {
namespace {

TEST(ReceiverToolTip, TextListsNameSignalAndAge) {
    using Line = ReceiverToolTip::Line;
    const double now = 1767225600000.0;
    std::vector<Line> twelve;
    for (int i = 0; i < 12; ++i) twelve.push_back({QStringLiteral("R%1").arg(i), -60.0 - i, now});
    struct Case {
        const char* name;
        std::vector<Line> lines;
        QString expected;
    };
    const Case cases[] = {
        {"none", {}, QStringLiteral("Lumerix\nSearching for receivers")},
        {"rounded signal, whole seconds",
         {{QStringLiteral("Boardroom"), -56.6, now - 2999}, {QStringLiteral("Lab"), -80.2, now}},
         QStringLiteral("Lumerix\nBoardroom \u2014 \u221257 dBm, 2 s ago\nLab \u2014 \u221280 dBm, 0 s ago")},
        {"never heard, clock behind",
         {{QStringLiteral("A"), -40, std::nullopt}, {QStringLiteral("B"), -41, now + 5000}},
         QStringLiteral("Lumerix\nA \u2014 \u221240 dBm\nB \u2014 \u221241 dBm, 0 s ago")},
        {"a name cannot add lines or escapes",
         {{QStringLiteral("A\nB\x1b[2J"), -40, std::nullopt}},
         QStringLiteral("Lumerix\nA\uFFFDB\uFFFD[2J \u2014 \u221240 dBm")},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        EXPECT_EQ(ReceiverToolTip::text(k.lines, now), k.expected);
    }
    const QStringList rows = ReceiverToolTip::text(twelve, now).split(QLatin1Char('\n'));
    ASSERT_EQ(rows.size(), 12);
    EXPECT_EQ(rows[10], QStringLiteral("R9 \u2014 \u221269 dBm, 0 s ago"));
    EXPECT_EQ(rows[11], QStringLiteral("and 2 more"));
}

// Pushes come at most once a second, carry the latest list, tick while receivers are listed and
// stop once the list is empty.
TEST(ReceiverToolTip, PushesAtMostOnceASecondAndTicksOnlyWhileListed) {
    VirtualTime time;
    ManualQueue queue(time);
    std::vector<ReceiverToolTip::Line> lines;
    std::vector<std::pair<double, QString>> pushes;  // (monotonic ms, text)
    ReceiverToolTip tip(
        &queue, [&] { return lines; },
        [&](const QString& text) { pushes.emplace_back(time.monotonicMs(), text); });
    const double heard = time.nowMs();

    tip.setNeedsUpdate();
    ASSERT_EQ(pushes.size(), 1u) << "the first push is immediate";
    lines = {{QStringLiteral("A"), -50, heard}};
    time.advance(200);
    tip.setNeedsUpdate();
    lines.push_back({QStringLiteral("B"), -70, heard});
    time.advance(300);
    tip.setNeedsUpdate();
    EXPECT_EQ(pushes.size(), 1u);
    time.advance(499);
    EXPECT_EQ(pushes.size(), 1u);
    time.advance(1);
    ASSERT_EQ(pushes.size(), 2u);
    EXPECT_TRUE(pushes[1].second.contains(QStringLiteral("B \u2014"))) << "the list as it is when shown";

    // Nothing new is heard: the ages still move on, once a second.
    time.advance(3000);
    ASSERT_EQ(pushes.size(), 5u);
    EXPECT_TRUE(pushes.back().second.contains(QStringLiteral("A \u2014 \u221250 dBm, 4 s ago")));
    for (size_t i = 1; i < pushes.size(); ++i) EXPECT_GE(pushes[i].first - pushes[i - 1].first, 1000.0);

    lines.clear();
    tip.setNeedsUpdate();
    time.advance(1000);
    ASSERT_EQ(pushes.size(), 6u);
    EXPECT_TRUE(pushes.back().second.endsWith(QStringLiteral("Checking Bluetooth")))
        << "no state reported yet";
    time.advance(10000);
    EXPECT_EQ(pushes.size(), 6u) << "no ticking with nothing listed";
}

}  // namespace
}  // namespace lumerix
