#include "app/ReceiverService.h"

#include <QDBusConnectionInterface>
#include <QDBusMetaType>

#include "log/Log.h"
#include "shell/ReceiverSearch.h"

namespace lumerix {
ReceiverService::ReceiverService(AppDelegate& delegate, DispatchQueue& mainQueue,
                                 std::shared_ptr<ScanDemand> demand)
    : delegate_(delegate),
      demand_(std::move(demand)),
      changed_(mainQueue, kChangeIntervalMs, [this] { Q_EMIT ReceiversChanged(); }) {
    qDBusRegisterMetaType<QList<QVariantMap>>();
    // The list says when its rows changed; clients hear of it once a second at most.
    delegate_.setReceiversObserver([this] { changed_.trigger(); });
}

ReceiverService::~ReceiverService() { delegate_.setReceiversObserver(nullptr); }

ReceiverService::Registration ReceiverService::registerOn(QDBusConnection bus, QString* error) {
    if (!bus.isConnected()) {
        *error = QStringLiteral("no session bus (%1)").arg(bus.lastError().message());
        return Registration::Failed;
    }
    if (!bus.registerObject(QLatin1String(kObjectPath), this,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals)) {
        *error = QStringLiteral("cannot export %1").arg(QLatin1String(kObjectPath));
        return Registration::Failed;
    }
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply = bus.interface()->registerService(
        QLatin1String(kServiceName), QDBusConnectionInterface::DontQueueService,
        QDBusConnectionInterface::DontAllowReplacement);
    if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered)
        return Registration::Registered;
    bus.unregisterObject(QLatin1String(kObjectPath));
    if (reply.isValid()) {
        *error = QStringLiteral("%1 is taken").arg(QLatin1String(kServiceName));
        return Registration::NameTaken;
    }
    *error = QStringLiteral("cannot claim %1: %2").arg(QLatin1String(kServiceName), reply.error().message());
    return Registration::Failed;
}

QList<ReceiverRow> ReceiverService::listed() const {
    QList<ReceiverRow> rows;
    for (const QVLumerixItemRef& item : delegate_.discoveredDeviceAry())
        rows.append(ReceiverRow::fromItem(*item));
    if (const auto& table = delegate_.referenceTable()) {
        for (const QVariant& saved : *table) rows.append(ReceiverRow::fromSaved(saved.toMap()));
    }
    return rows;
}

QList<QVariantMap> ReceiverService::Receivers() {
    if (demand_) demand_->nudge();
    QList<QVariantMap> out;
    for (const ReceiverRow& row : listed()) out.append(row.toMap());
    return out;
}

std::optional<QString> ReceiverService::connect(const QString& query) {
    if (demand_) demand_->nudge();
    const QList<ReceiverRow> receivers = listed();
    QString closest;
    if (LumerixScanning* scanning = delegate_.lumerix()) {
        if (auto handler = scanning->handler(); handler && handler->hasClosestItem()) {
            if (QVLumerixItemRef peer = handler->closestPeer(); peer && peer->peripheral())
                closest = peer->peripheral()->identifier();
        }
    }
    const std::optional<qsizetype> chosen = chooseReceiver(receivers, query, closest);
    if (!chosen) {
        Log::logf("D-Bus: no receiver matches \"%s\"", qUtf8Printable(query));
        return std::nullopt;
    }
    return connectListed(receivers[*chosen]);
}

std::optional<QString> ReceiverService::connectListed(const ReceiverRow& row) {
    Log::logf("D-Bus: connecting \"%s\" (%s)", qUtf8Printable(row.nameText()),
              qUtf8Printable(row.saved ? QStringLiteral("saved") : row.identifier));
    if (delegate_.ConnectReceiver(row.dictionary()) == AppDelegate::ConnectOutcome::NotSent)
        return std::nullopt;
    return row.saved ? row.nameText() : row.identifier;
}

QList<ReceiverService::SearchResult> ReceiverService::search(const QStringList& terms) const {
    // Someone typing in a launcher is looking: the radio listens without pause for a while.
    if (demand_) demand_->nudge();
    const QList<ReceiverRow> receivers = listed();
    QList<SearchResult> out;
    for (qsizetype i : searchReceivers(receivers, terms)) {
        const ReceiverRow& r = receivers[i];
        out.append({searchResultId(r), r.nameText(), searchResultDescription(r)});
    }
    return out;
}

bool ReceiverService::present(const QString& resultId) {
    const QList<ReceiverRow> receivers = listed();
    const std::optional<qsizetype> found = findSearchResult(receivers, resultId);
    if (!found) {
        Log::logf("Search: the receiver \"%s\" is no longer listed", qUtf8Printable(resultId));
        return false;
    }
    return connectListed(receivers[*found]).has_value();
}

bool ReceiverService::Connect(const QString& identifierOrName) {
    return connect(identifierOrName).has_value();
}

QString ReceiverService::ConnectNearest() {
    return connect(QLatin1String(kNearestReceiver)).value_or(QString());
}

}  // namespace lumerix
