#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTimeZone>
#include <vector>

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

QString writeFile(const QString& path, const QByteArray& bytes) {
    QFile f(path);
    EXPECT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(bytes);
    return path;
}

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
    const QString in = writeFile(dir.filePath(QStringLiteral("in.plist")), kAllTypes);
    const QString out = dir.filePath(QStringLiteral("out.plist"));

    const auto first = ReferenceTable::arrayWithContentsOfFile(in);
    ASSERT_TRUE(first);
    expectAllTypes(*first);

    ASSERT_TRUE(ReferenceTable::writeToFile(*first, out));
    const auto second = ReferenceTable::arrayWithContentsOfFile(out);
    ASSERT_TRUE(second);
    expectAllTypes(*second);
    EXPECT_EQ(*first, *second);
}

QByteArray nestedArrays(int depth, const QByteArray& inner = {}) {
    return R"(<?xml version="1.0"?><plist version="1.0">)" + QByteArray("<array>").repeated(depth) + inner +
           QByteArray("</array>").repeated(depth) + "</plist>";
}

// A binary plist (format version 00) of `count` objects; object i is `objects[i]` (marker byte and
// one-byte references) and the top object is 0.
QByteArray binaryPlist(const std::vector<QByteArray>& objects) {
    QByteArray out("bplist00");
    QByteArray offsets;
    for (const QByteArray& o : objects) {
        offsets.append(static_cast<char>(out.size() >> 8)).append(static_cast<char>(out.size() & 0xFF));
        out += o;
    }
    const auto tableAt = static_cast<quint64>(out.size());
    out += offsets;
    QByteArray trailer(32, '\0');
    trailer[6] = 2;  // offset size
    trailer[7] = 1;  // reference size
    for (int i = 0; i < 8; ++i) {
        trailer[8 + i] = static_cast<char>((quint64(objects.size()) >> (56 - 8 * i)) & 0xFF);
        trailer[24 + i] = static_cast<char>((tableAt >> (56 - 8 * i)) & 0xFF);
    }
    return out + trailer;
}

// A chain of one-element arrays, each holding the next, ending in an empty one.
QByteArray binaryChain(int depth) {
    std::vector<QByteArray> objects;
    objects.reserve(static_cast<size_t>(depth));
    for (int i = 0; i < depth - 1; ++i) objects.emplace_back(QByteArray("\xA1") + static_cast<char>(i + 1));
    objects.emplace_back("\xA0");
    return binaryPlist(objects);
}

// Arrays of two references to the same next array: the parser would copy each one twice over.
QByteArray binaryDoubling(int levels) {
    std::vector<QByteArray> objects;
    objects.reserve(static_cast<size_t>(levels) + 1);
    for (int i = 0; i < levels; ++i)
        objects.emplace_back(QByteArray("\xA2") + static_cast<char>(i + 1) + static_cast<char>(i + 1));
    objects.emplace_back("\xA0");
    return binaryPlist(objects);
}

// What would bring the parser down is refused before it sees the document: it recurses on nesting
// (a million levels ended the process at every start), copies shared objects, and stops the process
// on a string holding a zero character.
TEST(ReferenceTable, HostileDocumentsAreRefusedBeforeParsing) {
    const int limit = ReferenceTable::kMaxDepth;
    struct Case {
        const char* name;
        QByteArray data;
        bool loads;
    };
    const Case cases[] = {
        {"XML at the limit, with a value inside", nestedArrays(limit, "<string>x</string>"), true},
        {"XML one deeper", nestedArrays(limit + 1, "<string>x</string>"), false},
        {"XML a million deep", nestedArrays(1000000), false},
        {"a quoted '/>' does not hide an open tag",
         "<plist>" + QByteArray("<array a=\"/>\">").repeated(1000000) + "</plist>", false},
        {"comments and CDATA hold no tags",
         nestedArrays(2, "<!-- <array><array> --><string><![CDATA[<array>]]></string>"), true},
        {"binary at the limit", binaryChain(limit), true},
        {"binary one deeper", binaryChain(limit + 1), false},
        {"binary a cycle", binaryPlist({QByteArray("\xA1\x01"), QByteArray("\xA1\x00")}), false},
        {"binary sharing within bounds", binaryDoubling(10), true},
        {"binary sharing past a million values", binaryDoubling(40), false},
        {"binary string with a zero", binaryPlist({QByteArray::fromHex("53610062")}), false},  // "a\0b"
        {"binary UTF-16 key with a zero",
         binaryPlist({QByteArray("\xD1\x01\x02"), QByteArray("\x62\0a\0\0", 5), QByteArray::fromHex("5178")}),
         false},
        {"binary UTF-16 text with zero bytes, no zero character",
         binaryPlist({QByteArray("\x61\x01\x00", 3)}), true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ReferenceTable::propertyListFromData(c.data).has_value(), c.loads);
    }
}

// Only the user's own regular file is read: links (unless allowed), FIFOs, devices and files past
// the cap are refused without blocking or reading them whole.
TEST(ReferenceTable, ReadsRegularFilesOnly) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString good = writeFile(dir.filePath(QStringLiteral("good.plist")), kAllTypes);
    const QString link = dir.filePath(QStringLiteral("link.plist"));
    ASSERT_TRUE(QFile::link(good, link));
    const QString zero = dir.filePath(QStringLiteral("zero.plist"));
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/zero"), zero));
    const QString fifo = dir.filePath(QStringLiteral("fifo.plist"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    // Sparse: one byte past the cap, then a valid table the reader must never reach.
    const QString large = dir.filePath(QStringLiteral("large.plist"));
    QFile l(large);
    ASSERT_TRUE(l.open(QIODevice::WriteOnly));
    ASSERT_TRUE(l.resize(ReferenceTable::kMaxFileSize + 1));
    l.close();

    struct Case {
        const char* name;
        QString path;
        bool followLinks;
        bool loads;
    };
    const Case cases[] = {
        {"regular file", good, false, true},
        {"link, not followed", link, false, false},
        {"link, followed", link, true, true},
        {"link to /dev/zero, followed", zero, true, false},
        {"FIFO without a writer", fifo, true, false},
        {"directory", dir.path(), true, false},
        {"past the cap", large, false, false},
        {"missing", dir.filePath(QStringLiteral("none")), true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ReferenceTable::arrayWithContentsOfFile(c.path, c.followLinks).has_value(), c.loads);
    }
}

// Writing replaces whatever is at the path with a new file of the user's alone: a planted link is
// replaced, its target untouched, and a failed write leaves the old table whole.
TEST(ReferenceTable, WritesANewPrivateFileOverWhateverIsThere) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QVariantList table{QVariantMap{{QStringLiteral("Device"), QStringLiteral("Mine")}}};
    const QString path = dir.filePath(QStringLiteral("ReferenceTable.plist"));
    const QString victim = writeFile(dir.filePath(QStringLiteral("victim")), "not yours");
    ASSERT_TRUE(QFile::link(victim, path));

    ASSERT_TRUE(ReferenceTable::writeToFile(table, path));
    struct stat st {};
    ASSERT_EQ(::lstat(QFile::encodeName(path).constData(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    QFile v(victim);
    ASSERT_TRUE(v.open(QIODevice::ReadOnly));
    EXPECT_EQ(v.readAll(), QByteArray("not yours"));
    EXPECT_EQ(ReferenceTable::arrayWithContentsOfFile(path), table);

    // A path the new file cannot replace (a folder): nothing written, no temporary left behind.
    const QString folder = dir.filePath(QStringLiteral("folder.plist"));
    ASSERT_TRUE(QDir().mkdir(folder));
    EXPECT_FALSE(ReferenceTable::writeToFile(table, folder));
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::System | QDir::Hidden).size(), 2)
        << "the table and the victim only";
}

}  // namespace
}  // namespace lumerix
