#include "app/ScanMode.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMap>
#include <cstdio>
#include <tuple>

#include "app/HeadlessSession.h"
#include "app/Translations.h"
#include "platform/linux/SyslogSink.h"
#include "receiver/SignalStrength.h"
#include "shell/ReceiverRow.h"

namespace lumerix {
namespace {

void printLine(const QString& text) {
    std::fputs(text.toUtf8().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// The width of the name column while the scan runs, before all names are known.
constexpr int kRunningNameWidth = 24;

class ScanSession final : public HeadlessSession {
public:
    ScanSession(const CommandLine& o, const ScanSource& source) : HeadlessSession(source), json_(o.json) {}

private:
    void itemSeen(const QVLumerixItemRef& item) override { note(item); }
    void itemStatus(const QVLumerixItemRef& item, int) override { note(item); }

    void note(const QVLumerixItemRef& item) {
        if (!item->hasResolved() || !item->peripheral()) return;
        ReceiverRow row = ReceiverRow::fromItem(*item);
        auto it = rows_.find(row.identifier);
        const bool isNew = it == rows_.end();
        const bool changed =
            !isNew && std::tie(it->name, it->ip, it->loginCode) != std::tie(row.name, row.ip, row.loginCode);
        if (!isNew && row.rssi == 0) row.rssi = it->rssi;  // 0: no reading since the item decayed
        if (!json_ && (isNew || changed)) {
            printLine((isNew ? QStringLiteral("found    ") : QStringLiteral("changed  ")) +
                      row.tableLine(kRunningNameWidth));
        }
        rows_[row.identifier] = std::move(row);
    }

    int deadlineReached() override {
        handler().scanForLumerixService(false);
        QList<ReceiverRow> rows = rows_.values();
        sortStrongestFirst(rows, [](const ReceiverRow& r) { return r.rssi; });
        if (json_) {
            QJsonArray array;
            for (const ReceiverRow& r : rows) array.append(r.toJson());
            std::fputs(QJsonDocument(array).toJson(QJsonDocument::Indented).constData(), stdout);
            std::fflush(stdout);
            return 0;
        }
        printLine(QString());
        printLine(QStringLiteral("%1 receiver(s), strongest first:").arg(rows.size()));
        const int width = ReceiverRow::tableNameWidth(rows);
        const QString indent(9, QLatin1Char(' '));
        printLine(indent + ReceiverRow::tableHeader(width));
        for (const ReceiverRow& r : rows) printLine(indent + r.tableLine(width));
        return 0;
    }

    const bool json_;
    QMap<QString, ReceiverRow> rows_;
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
