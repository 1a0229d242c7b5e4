#include "app/LauncherSearch.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <algorithm>
#include <utility>

#include "log/Log.h"
#include "shell/ReceiverSearch.h"

namespace lumerix {

QDBusArgument& operator<<(QDBusArgument& out, const RunnerMatch& m) {
    out.beginStructure();
    out << m.id << m.text << m.iconName << m.type << m.relevance << m.properties;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, RunnerMatch& m) {
    in.beginStructure();
    in >> m.id >> m.text >> m.iconName >> m.type >> m.relevance >> m.properties;
    in.endStructure();
    return in;
}

QDBusArgument& operator<<(QDBusArgument& out, const RunnerAction& a) {
    out.beginStructure();
    out << a.id << a.text << a.iconName;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, RunnerAction& a) {
    in.beginStructure();
    in >> a.id >> a.text >> a.iconName;
    in.endStructure();
    return in;
}

namespace {

constexpr const char* kResultIcon = "video-display";

bool hasNearby(const QList<ReceiverService::SearchResult>& results) {
    return std::any_of(results.cbegin(), results.cend(),
                       [](const auto& r) { return !r.id.startsWith(QLatin1String(kSavedResultPrefix)); });
}

bool exportObject(QDBusConnection& bus, const char* path, QObject* object) {
    if (bus.registerObject(QLatin1String(path), object, QDBusConnection::ExportAllSlots)) return true;
    Log::logf("Launcher search: cannot export %s", path);
    return false;
}

}  // namespace

WarmUpGate::WarmUpGate(ReceiverService& service, QObject* parent) : QObject(parent), service_(service) {
    started_.start();
    poll_.setInterval(kPollMs);
    QObject::connect(&poll_, &QTimer::timeout, this, [this] { poll(); });
}

bool WarmUpGate::holdBack(const QDBusMessage& call, const QStringList& terms,
                          std::function<QDBusMessage(const QDBusMessage&)> answer) {
    if (started_.elapsed() >= kWarmUpMs || waiting_.size() >= kMaxWaiting) return false;
    if (hasNearby(service_.search({QLatin1String(kPresentKeyword)}))) return false;
    waiting_.append({call, terms, std::move(answer)});
    if (!poll_.isActive()) poll_.start();
    return true;
}

void WarmUpGate::poll() {
    if (started_.elapsed() < kWarmUpMs && !hasNearby(service_.search({QLatin1String(kPresentKeyword)})))
        return;
    poll_.stop();
    const QList<Waiting> waiting = std::exchange(waiting_, {});
    for (const Waiting& w : waiting) QDBusConnection::sessionBus().send(w.answer(w.call));
}

SearchProvider::SearchProvider(ReceiverService& service, WarmUpGate& gate) : service_(service), gate_(gate) {}

bool SearchProvider::registerOn(QDBusConnection bus) { return exportObject(bus, kObjectPath, this); }

QStringList SearchProvider::resultIds(const QStringList& terms) const {
    QStringList ids;
    for (const auto& r : service_.search(terms)) ids.append(r.id);
    return ids;
}

QStringList SearchProvider::GetInitialResultSet(const QStringList& terms) {
    if (calledFromDBus() && gate_.holdBack(message(), terms, [this, terms](const QDBusMessage& call) {
            return call.createReply(QVariant(resultIds(terms)));
        })) {
        setDelayedReply(true);
        return {};
    }
    return resultIds(terms);
}

QStringList SearchProvider::GetSubsearchResultSet(const QStringList& previousResults,
                                                  const QStringList& terms) {
    // Narrowed from the previous results, which may have missed a receiver heard since: search
    // again, the list is short.
    Q_UNUSED(previousResults);
    return resultIds(terms);
}

QList<QVariantMap> SearchProvider::GetResultMetas(const QStringList& identifiers) {
    // Metas of every receiver, not only the matching ones: find them by id.
    const QList<ReceiverService::SearchResult> all = service_.search({QLatin1String(kPresentKeyword)});
    QList<QVariantMap> metas;
    for (const QString& id : identifiers) {
        for (const auto& r : all) {
            if (r.id != id) continue;
            metas.append({{QStringLiteral("id"), r.id},
                          {QStringLiteral("name"), r.name},
                          {QStringLiteral("description"), r.description},
                          {QStringLiteral("gicon"), QLatin1String(kResultIcon)}});
            break;
        }
    }
    return metas;
}

void SearchProvider::ActivateResult(const QString& identifier, const QStringList& terms, uint timestamp) {
    Q_UNUSED(terms);
    Q_UNUSED(timestamp);
    service_.present(identifier);
}

void SearchProvider::LaunchSearch(const QStringList& terms, uint timestamp) {
    Q_UNUSED(timestamp);
    // The tray has no window to open: the best match is what the user most likely wants.
    const QList<ReceiverService::SearchResult> found = service_.search(terms);
    if (found.isEmpty()) {
        Log::logf("Search: no receiver matches \"%s\"", qUtf8Printable(terms.join(QLatin1Char(' '))));
        return;
    }
    service_.present(found.first().id);
}

RunnerService::RunnerService(ReceiverService& service, WarmUpGate& gate) : service_(service), gate_(gate) {
    qDBusRegisterMetaType<RunnerMatch>();
    qDBusRegisterMetaType<QList<RunnerMatch>>();
    qDBusRegisterMetaType<RunnerAction>();
    qDBusRegisterMetaType<QList<RunnerAction>>();
}

bool RunnerService::registerOn(QDBusConnection bus) { return exportObject(bus, kObjectPath, this); }

QList<RunnerAction> RunnerService::Actions() { return {}; }

QList<RunnerMatch> RunnerService::matches(const QString& query) const {
    const QList<ReceiverService::SearchResult> found = service_.search(searchTerms(query));
    QList<RunnerMatch> out;
    for (qsizetype i = 0; i < found.size(); ++i) {
        const auto& r = found[i];
        RunnerMatch m;
        m.id = r.id;
        m.text = QStringLiteral("Present to %1").arg(r.name);
        m.iconName = QLatin1String(kResultIcon);
        m.type = r.name.compare(query.trimmed(), Qt::CaseInsensitive) == 0 ? kExactMatch : kPossibleMatch;
        // Kept in the search's order: strongest first.
        m.relevance = 1.0 - 0.01 * static_cast<double>(std::min<qsizetype>(i, 50));
        m.properties.insert(QStringLiteral("subtext"), r.description);
        out.append(m);
    }
    return out;
}

QList<RunnerMatch> RunnerService::Match(const QString& query) {
    if (calledFromDBus() &&
        gate_.holdBack(message(), searchTerms(query), [this, query](const QDBusMessage& call) {
            return call.createReply(QVariant::fromValue(matches(query)));
        })) {
        setDelayedReply(true);
        return {};
    }
    return matches(query);
}

void RunnerService::Run(const QString& matchId, const QString& actionId) {
    Q_UNUSED(actionId);
    service_.present(matchId);
}

void RunnerService::Teardown() {}

}  // namespace lumerix
