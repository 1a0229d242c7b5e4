#pragma once
// Property-list files as Qt variants: the reference table is read and written through here.
// Values keep their plist type: string -> QString, integer -> qint64, real -> double,
// boolean -> bool, date -> QDateTime (UTC), data -> QByteArray, array -> QVariantList,
// dict -> QVariantMap. Reads accept XML and binary plists; writes are XML.
#include <QByteArray>
#include <QString>
#include <QVariant>
#include <cstdint>
#include <optional>

namespace lumerix {

class ReferenceTable {
public:
    // Files larger than this are not read.
    static constexpr qint64 kMaxFileSize = qint64{16} * 1024 * 1024;
    // Arrays and dictionaries nest at most this deep. The parser recurses on nesting, so a document
    // nesting deeper is refused before it reaches the parser.
    static constexpr int kMaxDepth = 64;
    // A binary plist may refer to one object from many places, and the parser copies it for each:
    // documents that would expand to more values than this are refused too.
    static constexpr uint64_t kMaxBinaryValues = uint64_t{1} << 20;

    // The top-level value of a plist document; none when it does not parse or nests too deep.
    static std::optional<QVariant> propertyListFromData(const QByteArray& data);
    // XML of a value; empty when the value (or one inside it) has no plist form.
    static QByteArray xmlFromPropertyList(const QVariant& value);

    // The array stored in a plist file; none when the file is missing, not a regular file, too
    // large, unreadable or not an array (the reason is logged, except for a missing file). A link
    // at path is followed only with followLinks: the user's own table is never read through one.
    static std::optional<QVariantList> arrayWithContentsOfFile(const QString& path, bool followLinks = false);
    // Writes the array as an XML plist readable by the user only, atomically: the old file stays
    // whole when anything fails, and a link at path is replaced rather than written through.
    static bool writeToFile(const QVariantList& array, const QString& path);
};

}  // namespace lumerix
