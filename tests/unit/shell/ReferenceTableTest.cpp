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
    <key>Big</key><integer>9007199254740993</integer>
    <key>Gain</key><real>0.25</real>
    <key>Enabled</key><true/>
    <key>Added</key><date>2024-02-29T12:34:56Z</date>
    <key>Blob</key><data>AAH/</data>
    <key>Tags</key><array><string>a</string><integer>1</integer></array>
    <key>Nested</key><dict><key>Deep</key><string>x</string></dict>
  </dict>
</array>
</plist>
)";

void expectAllTypes(const QVariantList& table) {
    ASSERT_EQ(table.size(), 1);
    const QVariantMap e = table[0].toMap();
    struct Expect {
        const char* key;
        QMetaType::Type type;
        QVariant value;
    };
    const Expect expects[] = {
        {"Device", QMetaType::QString, QString::fromUtf8("Salle Ä")},
        {"Big", QMetaType::LongLong, qint64(9007199254740993LL)},
        {"Gain", QMetaType::Double, 0.25},
        {"Enabled", QMetaType::Bool, true},
        {"Added", QMetaType::QDateTime, QDateTime(QDate(2024, 2, 29), QTime(12, 34, 56), QTimeZone::utc())},
        {"Blob", QMetaType::QByteArray, QByteArray("\x00\x01\xff", 3)},
        {"Tags", QMetaType::QVariantList, QVariantList{QStringLiteral("a"), qint64(1)}},
        {"Nested", QMetaType::QVariantMap, QVariantMap{{QStringLiteral("Deep"), QStringLiteral("x")}}},
    };
    for (const Expect& x : expects) {
        const QVariant v = e.value(QString::fromUtf8(x.key));
        EXPECT_EQ(v.typeId(), x.type) << x.key;
        EXPECT_EQ(v, x.value) << x.key;
    }
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
