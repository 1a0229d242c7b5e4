// Advertisement records through decrytLumerixItem: fields, two-segment names, statuses.
#include <gtest/gtest.h>

#include "handler_fixture.h"

namespace lumerix::test {
namespace {

const QString kNone = QStringLiteral("<none>");
const std::array<uint8_t, 4> kIp{10, 0, 0, 5};

QByteArray rec(uint8_t segment, const QByteArray& name, std::array<uint8_t, 4> ip = kIp) {
    return makeLumerixRecord(segment, ip, 12, 34, name);
}
QString nameOf(const QVLumerixItemRef& item) { return item->receiverName().value_or(kNone); }

TEST(Decoder, FieldsNamesAndStatuses) {
    const struct {
        const char* label;
        std::vector<QByteArray> records;
        QStringList namesAfterEach;
        QString ip;
        std::vector<int> statuses;
    } cases[] = {
        {"one segment", {rec(0x11, "Room A")}, {QStringLiteral("Room A")}, QStringLiteral("10.0.0.5"), {2}},
        {"first segment first",
         {rec(0x21, "ConferenceRoom-1"), rec(0x22, "North")},
         {QStringLiteral("ConferenceRoom-1..."), QStringLiteral("ConferenceRoom-1North")},
         QStringLiteral("10.0.0.5"),
         {2, 3}},
        {"second segment first",
         {rec(0x22, "North"), rec(0x21, "ConferenceRoom-1")},
         {QStringLiteral("...North"), QStringLiteral("ConferenceRoom-1North")},
         QStringLiteral("10.0.0.5"),
         {2, 3}},
        // Count nibble 1 with index 2 writes no name and keeps the current one; the address still moves.
        {"index two of one",
         {rec(0x11, "Room A"), rec(0x12, "Other", {10, 0, 0, 9})},
         {QStringLiteral("Room A"), QStringLiteral("Room A")},
         QStringLiteral("10.0.0.9"),
         {2}},
        {"case-only rename is no update",
         {rec(0x11, "Room A"), rec(0x11, "ROOM a")},
         {QStringLiteral("Room A"), QStringLiteral("Room A")},
         QStringLiteral("10.0.0.5"),
         {2}},
        {"rename is an update",
         {rec(0x11, "Room A"), rec(0x11, "Room B")},
         {QStringLiteral("Room A"), QStringLiteral("Room B")},
         QStringLiteral("10.0.0.5"),
         {2, 3}},
        {"nine bytes: no name bytes", {rec(0x11, "")}, {QString()}, QStringLiteral("10.0.0.5"), {2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        HandlerHarness h;
        auto item = h.looseItem();
        for (size_t i = 0; i < c.records.size(); ++i) {
            h.handler->decrytLumerixItem(item, c.records[i]);
            EXPECT_EQ(nameOf(item), c.namesAfterEach[static_cast<qsizetype>(i)]) << "after record " << i;
        }
        h.run();
        EXPECT_EQ(item->ipAddress().value_or(kNone), c.ip);
        EXPECT_EQ(item->loginCode().value_or(kNone), QStringLiteral("1234"));
        EXPECT_EQ(h.delegate.values("status"), c.statuses);
        for (const auto& e : h.delegate.events("status")) EXPECT_EQ(e.queue, "main");
    }
}

TEST(Decoder, ShortOversizedAndInvalidRecordsAreSafe) {
    HandlerHarness h;
    // Under 4 bytes, or absent: nothing happens.
    auto item = h.looseItem();
    h.handler->decrytLumerixItem(item, std::nullopt);
    for (int n = 0; n < 4; ++n) h.handler->decrytLumerixItem(item, QByteArray(n, '\x11'));
    EXPECT_FALSE(item->hasResolved());
    // 4 to 8 bytes: no field parsed, but the item resolves with empty strings.
    const QByteArray full = rec(0x11, "Room A");
    for (int n = 4; n <= 8; ++n) {
        auto fresh = h.looseItem();
        h.handler->decrytLumerixItem(fresh, full.left(n));
        EXPECT_TRUE(fresh->hasResolved()) << n;
        EXPECT_EQ(fresh->ipAddress().value_or(kNone), QString()) << n;
        EXPECT_EQ(nameOf(fresh), QString()) << n;
    }
    h.run();
    EXPECT_EQ(h.delegate.values("status"), std::vector<int>(5, 2));

    // Longer than 259 bytes: both segments stay inside the 48-byte name field.
    for (int extra : {251, 4096}) {
        auto big = h.looseItem();
        h.handler->decrytLumerixItem(big, rec(0x22, QByteArray(extra, 'N')));
        h.handler->decrytLumerixItem(big, rec(0x21, QByteArray(extra, 'N')));
        EXPECT_EQ(big->lumerixV2().receiverName[47], '\0') << extra;
        EXPECT_EQ(nameOf(big), QString(47, QLatin1Char('N'))) << extra;
    }

    auto bad = h.looseItem();
    h.handler->decrytLumerixItem(bad, rec(0x11, QByteArray("Caf\xC3\xFF"
                                                           "e")));
    EXPECT_TRUE(nameOf(bad).startsWith(QStringLiteral("Caf")) && nameOf(bad).endsWith(QLatin1Char('e')));
    EXPECT_TRUE(nameOf(bad).contains(QChar(0xFFFD)));
}

}  // namespace
}  // namespace lumerix::test
