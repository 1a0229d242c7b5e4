#include <gtest/gtest.h>

#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>
#include <QTimeZone>

#include "shell/ReferenceTable.h"

namespace lumerix {
namespace {

// One entry of every plist value type, as another tool would write it.
constexpr char kAllTypes[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<array>
  <dict>
    <key>Device</key><string>Salle Ä</string>
    <key>Port</key><integer>19314</integer>
    <key>Offset</key><integer>-42</integer>
    <key>Big</key><integer>9007199254740993</integer>
    <key>Gain</key><real>0.25</real>
    <key>Whole</key><real>3</real>
    <key>Enabled</key><true/>
    <key>Hidden</key><false/>
    <key>Added</key><date>2024-02-29T12:34:56Z</date>
    <key>Blob</key><data>AAH/</data>
    <key>Tags</key><array><string>a</string><integer>1</integer></array>
    <key>Nested</key><dict><key>Inner</key><dict><key>Deep</key><string>x</string></dict></dict>
    <key>Empty</key><string></string>
  </dict>
  <dict/>
</array>
</plist>
)";

void expectAllTypes(const QVariantList& table) {
    ASSERT_EQ(table.size(), 2);
    const QVariantMap e = table[0].toMap();
    struct Expect {
        const char* key;
        QMetaType::Type type;
        QVariant value;
    };
    const Expect expects[] = {
        {"Device", QMetaType::QString, QString::fromUtf8("Salle Ä")},
        {"Port", QMetaType::LongLong, qint64(19314)},
        {"Offset", QMetaType::LongLong, qint64(-42)},
        {"Big", QMetaType::LongLong, qint64(9007199254740993LL)},
        {"Gain", QMetaType::Double, 0.25},
        {"Whole", QMetaType::Double, 3.0},
        {"Enabled", QMetaType::Bool, true},
        {"Hidden", QMetaType::Bool, false},
        {"Added", QMetaType::QDateTime, QDateTime(QDate(2024, 2, 29), QTime(12, 34, 56), QTimeZone::utc())},
        {"Blob", QMetaType::QByteArray, QByteArray("\x00\x01\xff", 3)},
        {"Tags", QMetaType::QVariantList, QVariantList{QStringLiteral("a"), qint64(1)}},
        {"Empty", QMetaType::QString, QString()},
    };
    for (const Expect& x : expects) {
        const QVariant v = e.value(QString::fromUtf8(x.key));
        EXPECT_EQ(v.typeId(), x.type) << x.key;
        EXPECT_EQ(v, x.value) << x.key;
    }
    EXPECT_EQ(e.value(QStringLiteral("Nested"))
                  .toMap()
                  .value(QStringLiteral("Inner"))
                  .toMap()
                  .value(QStringLiteral("Deep")),
              QVariant(QStringLiteral("x")));
    EXPECT_EQ(table[1].typeId(), QMetaType::QVariantMap);
    EXPECT_TRUE(table[1].toMap().isEmpty());
}

TEST(ReferenceTable, ReadsEveryValueTypeAndWritesItBackUnchanged) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString in = dir.filePath(QStringLiteral("in.plist"));
    const QString out = dir.filePath(QStringLiteral("out.plist"));
    QFile f(in);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(kAllTypes);
    f.close();

    const auto first = ReferenceTable::arrayWithContentsOfFile(in);
    ASSERT_TRUE(first);
    expectAllTypes(*first);

    ASSERT_TRUE(ReferenceTable::writeToFile(*first, out));
    const auto second = ReferenceTable::arrayWithContentsOfFile(out);
    ASSERT_TRUE(second);
    expectAllTypes(*second);
    EXPECT_EQ(*first, *second);
}

}  // namespace
}  // namespace lumerix
