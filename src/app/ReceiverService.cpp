#include "app/ReceiverService.h"

#include <QDBusConnectionInterface>
#include <QDBusMetaType>

#include "log/Log.h"
#include "shell/ReceiverSearch.h"

namespace lumerix {
namespace {

QString text(const std::optional<QString>& value) { return value.value_or(QString()); }

}  // namespace

ReceiverService::ReceiverService(AppDelegate& delegate, DispatchQueue& mainQueue,
                                 std::shared_ptr<ScanDemand> demand)
    : delegate_(delegate),
      demand_(std::move(demand)),
      changed_(mainQueue, kChangeIntervalMs, [this] { emitIfChanged(); }) {
    qDBusRegisterMetaType<QList<QVariantMap>>();
    // Told of every change of the list; the list is looked at once a second at most.
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

QList<ReceiverService::Listed> ReceiverService::listed() const {
    QList<Listed> out;
    for (const QVLumerixItemRef& item : delegate_.discoveredDeviceAry()) {
        Listed l;
        const QString identifier =
            item->peripheral() ? item->peripheral()->identifier() : text(item->shortenedUUID());
        const QVLumerixItem::ConnectionDetails details = item->connectionDetails();
        const QString name = text(details.receiverName);
        l.entry.insert(QStringLiteral("identifier"), identifier);
        l.entry.insert(QStringLiteral("name"), name);
        l.entry.insert(QStringLiteral("ip"), text(details.ipAddress));
        l.entry.insert(QStringLiteral("loginCode"), text(details.loginCode));
        l.entry.insert(QStringLiteral("rssi"), item->aveRssi());
        l.entry.insert(QStringLiteral("lastSeenMs"), item->aliveDuration().value_or(0));
        l.entry.insert(QStringLiteral("saved"), false);
        if (auto uuid = item->shortenedUUID()) l.dictionary.insert(QStringLiteral("UUID"), *uuid);
        if (details.ipAddress) l.dictionary.insert(QStringLiteral("IP"), *details.ipAddress);
        if (details.loginCode) l.dictionary.insert(QStringLiteral("LoginCode"), *details.loginCode);
        if (details.receiverName) l.dictionary.insert(QStringLiteral("Device"), *details.receiverName);
        l.candidate = {identifier, name, item->aveRssi(), item->isValid(), false};
        out.append(std::move(l));
    }
    if (const auto& table = delegate_.referenceTable()) {
        for (const QVariant& saved : *table) {
            const QVariantMap map = saved.toMap();
            Listed l;
            for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
                if (it.value().canConvert<QString>()) l.dictionary.insert(it.key(), it.value().toString());
            }
            const QString name = l.dictionary.value(QStringLiteral("Device"));
            l.entry.insert(QStringLiteral("identifier"), QString());
            l.entry.insert(QStringLiteral("name"), name);
            l.entry.insert(QStringLiteral("ip"), l.dictionary.value(QStringLiteral("IP")));
            l.entry.insert(QStringLiteral("loginCode"), l.dictionary.value(QStringLiteral("LoginCode")));
            l.entry.insert(QStringLiteral("saved"), true);
            l.candidate = {QString(), name, 0, true, true};
            out.append(std::move(l));
        }
    }
    return out;
}

QList<QVariantMap> ReceiverService::Receivers() {
    if (demand_) demand_->nudge();
    QList<QVariantMap> out;
    for (const Listed& l : listed()) out.append(l.entry);
    return out;
}

std::optional<QString> ReceiverService::connect(const QString& query) {
    if (demand_) demand_->nudge();
    const QList<Listed> receivers = listed();
    QList<ReceiverCandidate> candidates;
    for (const Listed& l : receivers) candidates.append(l.candidate);
    QString closest;
    if (LumerixScanning* scanning = delegate_.lumerix()) {
        if (auto handler = scanning->handler(); handler && handler->hasClosestItem()) {
            if (QVLumerixItemRef peer = handler->closestPeer(); peer && peer->peripheral())
                closest = peer->peripheral()->identifier();
        }
    }
    const std::optional<qsizetype> chosen = chooseReceiver(candidates, query, closest);
    if (!chosen) {
        Log::logf("D-Bus: no receiver matches \"%s\"", qUtf8Printable(query));
        return std::nullopt;
    }
    return connectListed(receivers[*chosen]);
}

std::optional<QString> ReceiverService::connectListed(const Listed& l) {
    Log::logf("D-Bus: connecting \"%s\" (%s)", qUtf8Printable(l.candidate.name),
              qUtf8Printable(l.candidate.saved ? QStringLiteral("saved") : l.candidate.identifier));
    if (delegate_.ConnectReceiver(l.dictionary) == AppDelegate::ConnectOutcome::NotSent) return std::nullopt;
    return l.candidate.saved ? l.candidate.name : l.candidate.identifier;
}

QList<ReceiverService::SearchResult> ReceiverService::search(const QStringList& terms) const {
    // Someone typing in a launcher is looking: the radio listens without pause for a while.
    if (demand_) demand_->nudge();
    const QList<Listed> receivers = listed();
    QList<ReceiverCandidate> candidates;
    for (const Listed& l : receivers) candidates.append(l.candidate);
    QList<SearchResult> out;
    for (qsizetype i : searchReceivers(candidates, terms)) {
        const ReceiverCandidate& c = candidates[i];
        out.append({searchResultId(c), c.name, searchResultDescription(c)});
    }
    return out;
}

bool ReceiverService::present(const QString& resultId) {
    const QList<Listed> receivers = listed();
    QList<ReceiverCandidate> candidates;
    for (const Listed& l : receivers) candidates.append(l.candidate);
    const std::optional<qsizetype> found = findSearchResult(candidates, resultId);
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

void ReceiverService::emitIfChanged() {
    // Signal strength and time seen change with every advertisement; only the rest counts. The
    // saved entries do not change while the tray runs.
    QString shape;
    for (const QVLumerixItemRef& item : delegate_.discoveredDeviceAry()) {
        const QVLumerixItem::ConnectionDetails details = item->connectionDetails();
        shape += (item->peripheral() ? item->peripheral()->identifier() : text(item->shortenedUUID())) +
                 QLatin1Char('\x1f') + text(details.receiverName) + QLatin1Char('\x1f') +
                 text(details.ipAddress) + QLatin1Char('\x1f') + text(details.loginCode) +
                 QLatin1Char('\x1e');
    }
    if (shape == lastShape_) return;
    lastShape_ = shape;
    Q_EMIT ReceiversChanged();
}

}  // namespace lumerix
