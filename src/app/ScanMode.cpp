#include "app/ScanMode.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <algorithm>
#include <cstdio>

#include "app/HeadlessSession.h"
#include "app/Translations.h"
#include "platform/linux/SyslogSink.h"
#include "receiver/SignalStrength.h"
#include "text/DisplayText.h"

namespace lumerix {
namespace {

struct Row {
    QString name, ip, loginCode, identifier;
    double rssi = 0;
};

void printLine(const QString& text) {
    std::fputs(text.toUtf8().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// Names come from the air and identifiers from a replayed file: shown inert, as every column is.
QString columns(const QString& name, const QString& ip, const QString& code, const QString& rssi,
                const QString& identifier, int nameWidth = 24) {
    return QStringLiteral("%1  %2  %3  %4  %5")
        .arg(DisplayText::inert(name), -nameWidth)
        .arg(DisplayText::inert(ip), -15)
        .arg(DisplayText::inert(code), -8)
        .arg(rssi, 5)
        .arg(DisplayText::inert(identifier));
}

QString rowText(const Row& r, int nameWidth = 24) {
    return columns(r.name, r.ip, r.loginCode, r.rssi == 0 ? QStringLiteral("-") : QString::number(r.rssi),
                   r.identifier, nameWidth);
}

class ScanSession final : public HeadlessSession {
public:
    ScanSession(const CommandLine& o, const ScanSource& source) : HeadlessSession(source), json_(o.json) {}

private:
    void itemSeen(const QVLumerixItemRef& item) override { note(item); }
    void itemStatus(const QVLumerixItemRef& item, int) override { note(item); }

    void note(const QVLumerixItemRef& item) {
        if (!item->hasResolved() || !item->peripheral()) return;
        Row row;
        row.identifier = item->peripheral()->identifier();
        row.name = item->receiverName().value_or(QString());
        row.ip = item->ipAddress().value_or(QString());
        row.loginCode = item->loginCode().value_or(QString());
        row.rssi = item->aveRssi();
        auto it = rows_.find(row.identifier);
        const bool isNew = it == rows_.end();
        const bool changed =
            !isNew && (it->name != row.name || it->ip != row.ip || it->loginCode != row.loginCode);
        if (!isNew && row.rssi == 0) row.rssi = it->rssi;  // 0: no reading since the item decayed
        rows_[row.identifier] = row;
        if (!json_ && (isNew || changed))
            printLine((isNew ? QStringLiteral("found    ") : QStringLiteral("changed  ")) + rowText(row));
    }

    int deadlineReached() override {
        handler().scanForLumerixService(false);
        QList<Row> rows = rows_.values();
        sortStrongestFirst(rows, [](const Row& r) { return r.rssi; });
        if (json_) {
            QJsonArray array;
            for (const Row& r : rows) {
                QJsonObject o;
                o.insert(QStringLiteral("name"), r.name);
                o.insert(QStringLiteral("ip"), r.ip);
                o.insert(QStringLiteral("loginCode"), r.loginCode);
                o.insert(QStringLiteral("rssi"), r.rssi);
                o.insert(QStringLiteral("identifier"), r.identifier);
                array.append(o);
            }
            std::fputs(QJsonDocument(array).toJson(QJsonDocument::Indented).constData(), stdout);
            std::fflush(stdout);
            return 0;
        }
        printLine(QString());
        printLine(QStringLiteral("%1 receiver(s), strongest first:").arg(rows.size()));
        int width = 4;
        for (const Row& r : rows) width = std::max(width, static_cast<int>(r.name.size()));
        const QString indent(9, QLatin1Char(' '));
        printLine(indent + columns(QStringLiteral("NAME"), QStringLiteral("IP"), QStringLiteral("CODE"),
                                   QStringLiteral("RSSI"), QStringLiteral("IDENTIFIER"), width));
        for (const Row& r : rows) printLine(indent + rowText(r, width));
        return 0;
    }

    const bool json_;
    QMap<QString, Row> rows_;
};

}  // namespace

int runScanMode(int argc, char** argv, const CommandLine& options) {
    QCoreApplication app(argc, argv);
    installTranslations();
    installSystemLogSink();
    QString error;
    const std::optional<ScanSource> source = ScanSource::fromCommandLine(options, &error);
    if (!source) {
        std::fprintf(stderr, "lumerix: %s\n", qUtf8Printable(error));
        return 1;
    }
    ScanSession session(options, *source);
    return session.exec(options.scanSeconds * 1000.0);
}

}  // namespace lumerix
