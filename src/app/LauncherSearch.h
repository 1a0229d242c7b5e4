#pragma once
// The receivers offered to desktop launchers, on the tray's bus name: the overview search of
// GNOME Shell (org.gnome.Shell.SearchProvider2) and KRunner (org.kde.krunner1). Both list what
// ReceiverService::search finds and present a chosen result through ReceiverService::present,
// the same connect action as the D-Bus Connect. A search arriving while the tray has just
// started (it may have been started by that very search) and knows no receiver yet is answered
// once the first receivers are heard, or after a few seconds with nothing.
#include <QDBusContext>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QVariantMap>
#include <functional>

#include "app/ReceiverService.h"

namespace lumerix {

// Holds back the answers of searches made right after start-up.
class WarmUpGate : public QObject {
public:
    static constexpr int kWarmUpMs = 5000;
    static constexpr int kPollMs = 200;
    // Beyond this many held-back searches, a search is answered at once with what is known.
    static constexpr qsizetype kMaxWaiting = 32;

    explicit WarmUpGate(ReceiverService& service, QObject* parent = nullptr);
    // True when `call` (a search for `terms`) should wait: the reply is then sent later by `answer`.
    bool holdBack(const QDBusMessage& call, const QStringList& terms,
                  std::function<QDBusMessage(const QDBusMessage&)> answer);

private:
    void poll();
    struct Waiting {
        QDBusMessage call;
        QStringList terms;
        std::function<QDBusMessage(const QDBusMessage&)> answer;
    };
    ReceiverService& service_;
    QElapsedTimer started_;
    QTimer poll_;
    QList<Waiting> waiting_;
};

class SearchProvider final : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.gnome.Shell.SearchProvider2")

public:
    static constexpr const char* kObjectPath = "/com/zemko/Lumerix/SearchProvider";

    SearchProvider(ReceiverService& service, WarmUpGate& gate);
    bool registerOn(QDBusConnection bus);

public Q_SLOTS:
    QStringList GetInitialResultSet(const QStringList& terms);
    QStringList GetSubsearchResultSet(const QStringList& previousResults, const QStringList& terms);
    QList<QVariantMap> GetResultMetas(const QStringList& identifiers);
    void ActivateResult(const QString& identifier, const QStringList& terms, uint timestamp);
    void LaunchSearch(const QStringList& terms, uint timestamp);

private:
    QStringList resultIds(const QStringList& terms) const;

    ReceiverService& service_;
    WarmUpGate& gate_;
};

// One match as KRunner reads it: (id, text, icon, type, relevance, properties).
struct RunnerMatch {
    QString id;
    QString text;
    QString iconName;
    int type = 0;
    double relevance = 0;
    QVariantMap properties;
};
// One extra action on a match: (id, text, icon).
struct RunnerAction {
    QString id;
    QString text;
    QString iconName;
};

class RunnerService final : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.krunner1")

public:
    static constexpr const char* kObjectPath = "/com/zemko/Lumerix/Runner";
    // KRunner's match types.
    static constexpr int kPossibleMatch = 30;
    static constexpr int kExactMatch = 100;

    RunnerService(ReceiverService& service, WarmUpGate& gate);
    bool registerOn(QDBusConnection bus);

public Q_SLOTS:
    QList<RunnerAction> Actions();
    QList<RunnerMatch> Match(const QString& query);
    void Run(const QString& matchId, const QString& actionId);
    void Teardown();

private:
    QList<RunnerMatch> matches(const QString& query) const;

    ReceiverService& service_;
    WarmUpGate& gate_;
};

}  // namespace lumerix

Q_DECLARE_METATYPE(lumerix::RunnerMatch)
Q_DECLARE_METATYPE(lumerix::RunnerAction)
