#pragma once
// One receiver as every view shows it, built from a receiver heard lately or from a saved entry
// of the reference table: the dictionary the connect action takes, the --scan JSON object, the
// D-Bus service's map (also what --list prints as JSON) and the terminal table line. The choice
// and search rules read the same rows.
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QVariantMap>
#include <optional>

#include "receiver/QVLumerixItem.h"
#include "sender/ConnectionInfo.h"

namespace lumerix {

struct ReceiverRow {
    QString identifier;           // the peripheral's; empty for a saved receiver
    std::optional<QString> name;  // none until decoded: the menu leaves such a receiver out
    double rssi = 0;              // the average; 0 when there is none (and for a saved receiver)
    bool valid = true;            // heard recently enough to count as nearby
    bool saved = false;
    std::optional<QString> ip{};
    std::optional<QString> loginCode{};
    std::optional<double> lastSeenMs{};  // ms since 1970
    ReceiverDictionary more{};           // a saved entry's other values (a Wi-Fi key), passed on as they are

    QString nameText() const { return name.value_or(QString()); }

    static ReceiverRow fromItem(const QVLumerixItem& item);
    // A reference-table entry: "Device", "IP", "LoginCode" and any other text value.
    static ReceiverRow fromSaved(const QVariantMap& entry);
    // Read back from what toMap() gave (a reply of the running tray's service).
    static ReceiverRow fromMap(const QVariantMap& map);

    // "UUID", "IP", "LoginCode", "Device", each only when known.
    ReceiverDictionary dictionary() const;
    // identifier, name, ip, loginCode, saved; rssi and lastSeenMs for a receiver nearby.
    QVariantMap toMap() const;
    // name, ip, loginCode, rssi, identifier.
    QJsonObject toJson() const;

    // Columns NAME, IP, CODE, RSSI, IDENTIFIER; every value from the air or a file shown inert.
    // A saved receiver shows "-" and "(saved)", a receiver without a reading "-".
    QString tableLine(int nameWidth) const;
    static QString tableHeader(int nameWidth);
    // The NAME column's width for these rows (at least the header's).
    static int tableNameWidth(const QList<ReceiverRow>& rows);
};

}  // namespace lumerix
