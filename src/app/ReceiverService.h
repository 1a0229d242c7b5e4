#pragma once
// The tray's session D-Bus service: com.zemko.Lumerix at /com/zemko/Lumerix, interface
// com.zemko.Lumerix1. Lists the receivers the tray knows (nearby ones strongest first, then the
// saved ones) and connects one the way a menu choice does, by name, identifier or "nearest".
// ReceiversChanged relays the tray's list saying its rows changed (a receiver came or went, the
// order changed, or a name, address or code changed; a new reading alone is no change), at most
// once a second. Lives on the main thread, beside the AppDelegate it reads.
#include <QDBusConnection>
#include <QList>
#include <QObject>
#include <QVariantMap>

#include "ble/ScanDemand.h"
#include "dispatch/Throttle.h"
#include "shell/AppDelegate.h"
#include "shell/ReceiverChoice.h"

namespace lumerix {

class ReceiverService final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.zemko.Lumerix1")

public:
    static constexpr const char* kServiceName = "com.zemko.Lumerix";
    static constexpr const char* kObjectPath = "/com/zemko/Lumerix";
    static constexpr const char* kInterfaceName = "com.zemko.Lumerix1";
    static constexpr double kChangeIntervalMs = 1000.0;

    // demand (may be null) is nudged by every query: a client that asks now likely asks again.
    ReceiverService(AppDelegate& delegate, DispatchQueue& mainQueue,
                    std::shared_ptr<ScanDemand> demand = nullptr);
    ~ReceiverService() override;

    enum class Registration { Registered, NameTaken, Failed };
    // Exports the object, then claims the name (never queued, never replacing its owner).
    Registration registerOn(QDBusConnection bus, QString* error);

    // For launcher searches: the receivers all terms match, in the order to show them.
    struct SearchResult {
        QString id;  // stays with its receiver while the list changes
        QString name;
        QString description;
    };
    QList<SearchResult> search(const QStringList& terms) const;
    // Connects the receiver a search result names, like Connect; false when it is gone or nothing
    // could be sent.
    bool present(const QString& resultId);

public Q_SLOTS:
    QList<QVariantMap> Receivers();
    bool Connect(const QString& identifierOrName);
    QString ConnectNearest();

Q_SIGNALS:
    void ReceiversChanged();

private:
    // Nearby receivers in the tray's order, then the saved ones.
    QList<ReceiverRow> listed() const;
    // The receiver the query names, connected; its identifier (or name, for a saved one).
    std::optional<QString> connect(const QString& query);
    std::optional<QString> connectListed(const ReceiverRow& row);

    AppDelegate& delegate_;
    std::shared_ptr<ScanDemand> demand_;
    Throttle changed_;
};

}  // namespace lumerix
