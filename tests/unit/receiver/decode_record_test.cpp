// Advertisement records through decrytLumerixItem: fields, two-segment names, statuses.
#include <gtest/gtest.h>

#include "handler_fixture.h"
#include "log/Log.h"

namespace lumerix::test {
namespace {

struct Rec {
    uint8_t segment;
    std::array<uint8_t, 4> ip;
    uint8_t code1, code2;
    QByteArray name;
};

QByteArray record(const Rec& r) { return makeLumerixRecord(r.segment, r.ip, r.code1, r.code2, r.name); }

struct DecodeCase {
    const char* label;
    std::vector<Rec> records;
    std::vector<QString> namesAfterEach;  // item's receiverName after each record ("<none>" if absent)
    QString ip, code;
    std::vector<int> statuses;
};

const QString kNone = QStringLiteral("<none>");
QString nameOf(const QVLumerixItemRef& item) { return item->receiverName().value_or(kNone); }

void PrintTo(const DecodeCase& c, std::ostream* os) { *os << c.label; }

class DecodeRecords : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(DecodeRecords, FieldsNamesAndStatuses) {
    const DecodeCase& c = GetParam();
    HandlerHarness h;
    auto item = h.looseItem();
    for (size_t i = 0; i < c.records.size(); ++i) {
        h.handler->decrytLumerixItem(item, record(c.records[i]));
        EXPECT_EQ(nameOf(item), c.namesAfterEach[i]) << "after record " << i;
    }
    h.run();
    EXPECT_EQ(item->ipAddress().value_or(kNone), c.ip);
    EXPECT_EQ(item->loginCode().value_or(kNone), c.code);
    EXPECT_TRUE(item->hasResolved());
    EXPECT_EQ(h.delegate.values("status"), c.statuses);
    for (const auto& e : h.delegate.events("status")) EXPECT_EQ(e.queue, "main");
}

const std::array<uint8_t, 4> kIp{10, 0, 0, 5};

INSTANTIATE_TEST_SUITE_P(
    Decoder, DecodeRecords,
    ::testing::Values(
        DecodeCase{"OneSegment",
                   {{0x11, kIp, 12, 34, "Room A"}},
                   {QStringLiteral("Room A")},
                   QStringLiteral("10.0.0.5"),
                   QStringLiteral("1234"),
                   {2}},
        DecodeCase{"FirstSegmentFirst",
                   {{0x21, kIp, 12, 34, "ConferenceRoom-1"}, {0x22, kIp, 12, 34, "North"}},
                   {QStringLiteral("ConferenceRoom-1..."), QStringLiteral("ConferenceRoom-1North")},
                   QStringLiteral("10.0.0.5"),
                   QStringLiteral("1234"),
                   {2, 3}},
        DecodeCase{"SecondSegmentFirst",
                   {{0x22, kIp, 12, 34, "North"}, {0x21, kIp, 12, 34, "ConferenceRoom-1"}},
                   {QStringLiteral("...North"), QStringLiteral("ConferenceRoom-1North")},
                   QStringLiteral("10.0.0.5"),
                   QStringLiteral("1234"),
                   {2, 3}},
        // A shorter second segment hides the stale tail of an earlier, longer one.
        DecodeCase{"ShorterSecondSegmentLater",
                   {{0x21, kIp, 1, 2, "ConferenceRoom-1"},
                    {0x22, kIp, 1, 2, "NorthWing"},
                    {0x22, kIp, 1, 2, "East"}},
                   {QStringLiteral("ConferenceRoom-1..."), QStringLiteral("ConferenceRoom-1NorthWing"),
                    QStringLiteral("ConferenceRoom-1East")},
                   QStringLiteral("10.0.0.5"),
                   QStringLiteral("0102"),
                   {2, 3, 3}},
        // Back to one segment: the pair bits are forgotten.
        DecodeCase{
            "TwoSegmentsThenOne",
            {{0x21, kIp, 1, 2, "ConferenceRoom-1"}, {0x22, kIp, 1, 2, "North"}, {0x11, kIp, 1, 2, "Lobby"}},
            {QStringLiteral("ConferenceRoom-1..."), QStringLiteral("ConferenceRoom-1North"),
             QStringLiteral("Lobby")},
            QStringLiteral("10.0.0.5"),
            QStringLiteral("0102"),
            {2, 3, 3}},
        // Count nibble 1 with index 2 writes no name and keeps the current one; the address still moves.
        DecodeCase{"IndexTwoOfOne",
                   {{0x11, kIp, 12, 34, "Room A"}, {0x12, {10, 0, 0, 9}, 12, 34, "Other"}},
                   {QStringLiteral("Room A"), QStringLiteral("Room A")},
                   QStringLiteral("10.0.0.9"),
                   QStringLiteral("1234"),
                   {2}},
        DecodeCase{"IndexTwoOfOneOnNewItem",
                   {{0x12, kIp, 12, 34, "Other"}},
                   {kNone},
                   QStringLiteral("10.0.0.5"),
                   QStringLiteral("1234"),
                   {2}},
        DecodeCase{"CaseOnlyRename",
                   {{0x11, kIp, 12, 34, "Room A"}, {0x11, kIp, 12, 34, "ROOM a"}},
                   {QStringLiteral("Room A"), QStringLiteral("Room A")},
                   QStringLiteral("10.0.0.5"),
                   QStringLiteral("1234"),
                   {2}},
        DecodeCase{"Rename",
                   {{0x11, kIp, 12, 34, "Room A"}, {0x11, kIp, 12, 34, "Room B"}},
                   {QStringLiteral("Room A"), QStringLiteral("Room B")},
                   QStringLiteral("10.0.0.5"),
                   QStringLiteral("1234"),
                   {2, 3}},
        // Nine bytes: six of plaintext, no name bytes.
        DecodeCase{"NineBytes",
                   {{0x11, kIp, 12, 34, ""}},
                   {QString()},
                   QStringLiteral("10.0.0.5"),
                   QStringLiteral("1234"),
                   {2}},
        DecodeCase{"WideCodeBytes",
                   {{0x11, {255, 255, 255, 255}, 100, 255, "X"}},
                   {QStringLiteral("X")},
                   QStringLiteral("255.255.255.255"),
                   QStringLiteral("100255"),
                   {2}},
        DecodeCase{"LongSegmentOneIsCut",
                   {{0x11, kIp, 0, 7, "A name that is far too long"}},
                   {QStringLiteral("A name that is f")},
                   QStringLiteral("10.0.0.5"),
                   QStringLiteral("0007"),
                   {2}}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(Decoder, ShortRecords) {
    HandlerHarness h;
    // Under 4 bytes, or absent: nothing happens.
    auto item = h.looseItem();
    h.handler->decrytLumerixItem(item, std::nullopt);
    for (int n = 0; n < 4; ++n) h.handler->decrytLumerixItem(item, QByteArray(n, '\x11'));
    h.run();
    EXPECT_FALSE(item->hasResolved());
    EXPECT_FALSE(item->receiverName().has_value());
    EXPECT_TRUE(h.delegate.events("status").empty());

    // 4 to 8 bytes: no field parsed, but the item resolves with empty strings.
    const QByteArray full = makeLumerixRecord(0x11, kIp, 12, 34, "Room A");
    for (int n = 4; n <= 8; ++n) {
        auto fresh = h.looseItem();
        h.handler->decrytLumerixItem(fresh, full.left(n));
        EXPECT_TRUE(fresh->hasResolved()) << n;
        EXPECT_EQ(fresh->ipAddress().value_or(kNone), QString()) << n;
        EXPECT_EQ(fresh->loginCode().value_or(kNone), QString()) << n;
        EXPECT_EQ(fresh->receiverName().value_or(kNone), QString()) << n;
    }
    h.run();
    EXPECT_EQ(h.delegate.values("status"), std::vector<int>(5, 2));

    // A short record after a full one keeps the fields the full one set.
    auto known = h.looseItem();
    h.handler->decrytLumerixItem(known, full);
    h.handler->decrytLumerixItem(known, full.left(6));
    EXPECT_EQ(known->ipAddress().value_or(kNone), QStringLiteral("10.0.0.5"));
    EXPECT_EQ(known->receiverName().value_or(kNone), QStringLiteral("Room A"));
}

TEST(Decoder, OversizedRecordStaysInBounds) {
    HandlerHarness h;
    for (int extra : {250, 251, 400, 4096}) {
        auto item = h.looseItem();
        QByteArray name(extra, 'N');
        h.handler->decrytLumerixItem(item, makeLumerixRecord(0x22, kIp, 1, 2, name));
        h.handler->decrytLumerixItem(item, makeLumerixRecord(0x21, kIp, 1, 2, name));
        EXPECT_EQ(item->ipAddress().value_or(kNone), QStringLiteral("10.0.0.5")) << extra;
        const LumerixStructV2 v = item->lumerixV2();
        EXPECT_EQ(v.receiverName[47], '\0') << extra;
        EXPECT_EQ(item->receiverName().value_or(kNone),
                  QString(16, QLatin1Char('N')) + QString(31, QLatin1Char('N')));
    }
}

TEST(Decoder, InvalidUtf8KeepsTheName) {
    HandlerHarness h;
    auto item = h.looseItem();
    h.handler->decrytLumerixItem(item, makeLumerixRecord(0x11, kIp, 1, 2,
                                                         QByteArray("Caf\xC3\xFF"
                                                                    "e")));
    const QString name = item->receiverName().value_or(kNone);
    EXPECT_TRUE(name.startsWith(QStringLiteral("Caf")));
    EXPECT_TRUE(name.endsWith(QLatin1Char('e')));
    EXPECT_TRUE(name.contains(QChar(0xFFFD)));
}

TEST(Decoder, ResolvedClosesTheOpenConnectionBeforeTheDelegateHears) {
    HandlerHarness h;
    auto connected = h.looseItem(deviceId(40));
    h.handler->triggerItem(connected, LumerixItemConnected);
    ASSERT_EQ(h.handler->connectedPeer(), connected);
    h.run();
    h.delegate.clear();

    auto item = h.looseItem(deviceId(41));
    h.handler->decrytLumerixItem(item, makeLumerixRecord(0x11, kIp, 1, 2, "Room A"));
    EXPECT_EQ(h.central().cancelledConnections(), std::vector<QString>{deviceId(40)});
    EXPECT_TRUE(h.delegate.events("status").empty());
    h.run();
    EXPECT_EQ(h.delegate.values("status"), std::vector<int>{2});
}

TEST(Decoder, LogDecryptedItem) {
    HandlerHarness h;
    auto item = h.looseItem();
    LumerixHeaderStruct header{1, 2, 3, 4, 5, 6, 7};
    item->setLumerixHeader(header);
    LumerixStruct info{};
    std::strcpy(info.WiFiSSID, "Guest");
    std::memset(info.ReceiverName, 'R', sizeof info.ReceiverName);  // no terminator: cut at the field
    item->setLumerix(info);

    const QString dashes = QStringLiteral("----------------------");
    ScopedLogCapture capture;
    h.handler->logDecryptedItem(item);
    h.handler->logDecryptedItem(nullptr);
    const QStringList expected{QStringLiteral("-[QVLumerixHandler logDecryptedItem:]"),
                               dashes,
                               QStringLiteral("1 (3) Guest"),
                               QStringLiteral("2 (4) "),
                               QStringLiteral("3 (5) "),
                               QStringLiteral("4 (6) ") + QString(40, QLatin1Char('R')),
                               QStringLiteral("5 (7) "),
                               dashes,
                               QStringLiteral("-[QVLumerixHandler logDecryptedItem:]"),
                               dashes,
                               QStringLiteral("1 (0) "),
                               QStringLiteral("2 (0) "),
                               QStringLiteral("3 (0) "),
                               QStringLiteral("4 (0) "),
                               QStringLiteral("5 (0) "),
                               dashes};
    EXPECT_EQ(capture.lines(), expected);
}

}  // namespace
}  // namespace lumerix::test
