#pragma once
// Property-list files as Qt variants: the reference table is read and written through here.
// Values keep their plist type: string -> QString, integer -> qint64, real -> double,
// boolean -> bool, date -> QDateTime (UTC), data -> QByteArray, array -> QVariantList,
// dict -> QVariantMap. Reads accept XML and binary plists; writes are XML.
#include <QByteArray>
#include <QString>
#include <QVariant>
#include <optional>

namespace lumerix {

class ReferenceTable {
public:
    // Files larger than this are not read.
    static constexpr qint64 kMaxFileSize = qint64{16} * 1024 * 1024;

    // The top-level value of a plist document; none when it does not parse.
    static std::optional<QVariant> propertyListFromData(const QByteArray& data);
    // XML of a value; empty when the value (or one inside it) has no plist form.
    static QByteArray xmlFromPropertyList(const QVariant& value);

    // The array stored in a plist file; none when the file is missing, unreadable or not an array.
    static std::optional<QVariantList> arrayWithContentsOfFile(const QString& path);
    // Writes the array as an XML plist, atomically: the old file stays whole when anything fails.
    static bool writeToFile(const QVariantList& array, const QString& path);
};

}  // namespace lumerix
