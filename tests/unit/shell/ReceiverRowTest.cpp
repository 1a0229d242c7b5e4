#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QVariantList>

#include "ble/StaticPeripheral.h"
#include "dispatch/ManualQueue.h"
#include "shell/ReceiverRow.h"

namespace lumerix {
namespace {

const QString kId = QStringLiteral("00000000-0000-0000-0000-00000000000A");
const QString kHostile = QStringLiteral("Aula\x1b]0;x\x07\u202e");
constexpr double kSeenMs = 1767225600000.0;

struct Details {
    std::optional<QString> name, ip, code;
    double rssi = -61.5;
};

QVLumerixItemRef makeItem(const std::shared_ptr<VirtualTime>& time, const Details& d) {
    auto item = QVLumerixItem::initWithPeripheral(
        std::make_shared<StaticPeripheral>(kId, QStringLiteral("LX")), time);
    item->addNewRssi(d.rssi);
    item->setDiscoveredTimeStamp(kSeenMs);
    item->setReceiverName(d.name);
    item->setIpAddress(d.ip);
    item->setLoginCode(d.code);
    return item;
}

QString json(const QJsonObject& o) {
    return QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact));
}

ReceiverDictionary dictionary(std::initializer_list<std::pair<const char*, QString>> entries) {
    ReceiverDictionary d;
    for (const auto& [key, value] : entries) d.insert(QString::fromUtf8(key), value);
    return d;
}

// The map D-Bus and --list --json carry; only live receivers have a reading and a time seen.
QVariantMap viewMap(const QString& id, const QString& name, const QString& ip, const QString& code,
                    std::optional<double> rssi) {
    QVariantMap m{{QStringLiteral("identifier"), id},
                  {QStringLiteral("name"), name},
                  {QStringLiteral("ip"), ip},
                  {QStringLiteral("loginCode"), code},
                  {QStringLiteral("saved"), !rssi}};
    if (rssi) {
        m.insert(QStringLiteral("rssi"), *rssi);
        m.insert(QStringLiteral("lastSeenMs"), kSeenMs);
    }
    return m;
}

// Every view of one receiver: what the connect action gets, what D-Bus and --list --json show,
// what --scan --json shows and the terminal line.
TEST(ReceiverRow, EveryViewOfLiveAndSavedReceivers) {
    auto time = std::make_shared<VirtualTime>();
    const QString ip6 = QStringLiteral("10.0.0.6\n");
    const QString blank(15, QLatin1Char(' '));
    struct Case {
        const char* what;
        ReceiverRow row;
        ReceiverDictionary dictionary;
        QVariantMap map;
        QString json;
        QString line;  // at name width 6
    };
    const Case cases[] = {
        {"live, decoded",
         ReceiverRow::fromItem(
             *makeItem(time, {QStringLiteral("Room A"), QStringLiteral("10.0.0.5"), QStringLiteral("0102")})),
         dictionary({{"UUID", kId},
                     {"IP", QStringLiteral("10.0.0.5")},
                     {"LoginCode", QStringLiteral("0102")},
                     {"Device", QStringLiteral("Room A")}}),
         viewMap(kId, QStringLiteral("Room A"), QStringLiteral("10.0.0.5"), QStringLiteral("0102"), -61.5),
         QStringLiteral(
             R"({"identifier":"%1","ip":"10.0.0.5","loginCode":"0102","name":"Room A","rssi":-61.5})")
             .arg(kId),
         QStringLiteral("Room A  10.0.0.5         0102      -61.5  ") + kId},
        {"live, nothing decoded yet, no reading",
         ReceiverRow::fromItem(*makeItem(time, {std::nullopt, std::nullopt, std::nullopt, 0})),
         dictionary({{"UUID", kId}}), viewMap(kId, {}, {}, {}, 0.0),
         QStringLiteral(R"({"identifier":"%1","ip":"","loginCode":"","name":"","rssi":0})").arg(kId),
         QStringLiteral("        ") + blank + QString(10, QLatin1Char(' ')) + QStringLiteral("      -  ") +
             kId},
        {"live, hostile name: raw everywhere but on the terminal",
         ReceiverRow::fromItem(*makeItem(time, {kHostile, ip6, QStringLiteral("9")})),
         dictionary({{"UUID", kId}, {"IP", ip6}, {"LoginCode", QStringLiteral("9")}, {"Device", kHostile}}),
         viewMap(kId, kHostile, ip6, QStringLiteral("9"), -61.5),
         QStringLiteral(R"({"identifier":"%1","ip":"10.0.0.6\n","loginCode":"9","name":"Aula\u001b]0;x\u0007)"
                        "\u202e\",\"rssi\":-61.5}")
             .arg(kId),
         QStringLiteral("Aula\ufffd]0;x\ufffd\ufffd  10.0.0.6\ufffd        9         -61.5  ") + kId},
        {"saved: its other text values go to the sender, other values nowhere",
         ReceiverRow::fromSaved({{QStringLiteral("Device"), QStringLiteral("Lab")},
                                 {QStringLiteral("IP"), QStringLiteral("10.9.9.9")},
                                 {QStringLiteral("WiFiKey"), QStringLiteral("secret")},
                                 {QStringLiteral("Rooms"), QVariantList{1, 2}}}),
         dictionary({{"IP", QStringLiteral("10.9.9.9")},
                     {"Device", QStringLiteral("Lab")},
                     {"WiFiKey", QStringLiteral("secret")}}),
         viewMap({}, QStringLiteral("Lab"), QStringLiteral("10.9.9.9"), {}, std::nullopt),
         QStringLiteral(R"({"identifier":"","ip":"10.9.9.9","loginCode":"","name":"Lab","rssi":0})"),
         QStringLiteral("Lab     10.9.9.9                       -  (saved)")},
        {"saved without a name",
         ReceiverRow::fromSaved({{QStringLiteral("LoginCode"), QStringLiteral("77")}}),
         dictionary({{"LoginCode", QStringLiteral("77")}}),
         viewMap({}, {}, {}, QStringLiteral("77"), std::nullopt),
         QStringLiteral(R"({"identifier":"","ip":"","loginCode":"77","name":"","rssi":0})"),
         QStringLiteral("        ") + blank + QStringLiteral("  77            -  (saved)")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.row.dictionary(), c.dictionary);
        EXPECT_EQ(c.row.toMap(), c.map);
        EXPECT_EQ(json(c.row.toJson()).toStdString(), c.json.toStdString());
        EXPECT_EQ(c.row.tableLine(6).toStdString(), c.line.toStdString());
        // --list through the running tray prints what came back over D-Bus: the same map and line.
        const ReceiverRow back = ReceiverRow::fromMap(c.row.toMap());
        EXPECT_EQ(back.toMap(), c.map);
        EXPECT_EQ(back.tableLine(6).toStdString(), c.line.toStdString());
    }
}

TEST(ReceiverRow, NameColumnFitsTheLongestNameAndTheHeader) {
    const QList<ReceiverRow> rows = {
        ReceiverRow::fromSaved({{QStringLiteral("Device"), QStringLiteral("Lab")}}),
        ReceiverRow::fromSaved({{QStringLiteral("Device"), QStringLiteral("Boardroom")}})};
    EXPECT_EQ(ReceiverRow::tableNameWidth({}), 4);
    EXPECT_EQ(ReceiverRow::tableNameWidth(rows), 9);
    EXPECT_EQ(ReceiverRow::tableHeader(9),
              QStringLiteral("NAME       IP               CODE       RSSI  IDENTIFIER"));
}

}  // namespace
}  // namespace lumerix
