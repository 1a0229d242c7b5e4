#include "platform/linux/DesktopNotifier.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

#include "log/Log.h"

namespace lumerix {

namespace {

constexpr int kDefaultExpiry = -1;  // the server's own timeout

QString escapedMarkup(QString text) {
    text.replace(QLatin1Char('&'), QStringLiteral("&amp;"));
    text.replace(QLatin1Char('<'), QStringLiteral("&lt;"));
    text.replace(QLatin1Char('>'), QStringLiteral("&gt;"));
    return text;
}

}  // namespace

DesktopNotifier::DesktopNotifier(QDBusConnection sessionBus, QString appName, QString iconName)
    : bus_(std::move(sessionBus)), appName_(std::move(appName)), iconName_(std::move(iconName)) {
    if (!bus_.isConnected()) return;
    const QDBusMessage call =
        QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath), QLatin1String(kService),
                                       QStringLiteral("GetCapabilities"));
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        const QDBusPendingReply<QStringList> reply = *w;
        if (!reply.isError()) markup_ = reply.value().contains(QStringLiteral("body-markup"));
        w->deleteLater();
    });
}

void DesktopNotifier::notify(const Notification& notification) {
    if (!bus_.isConnected()) return;
    QDBusMessage call = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
                                                       QLatin1String(kService), QStringLiteral("Notify"));
    // Servers that read markup in the body must see receiver names as text.
    const QString body = markup_ ? escapedMarkup(notification.body) : notification.body;
    // Each bubble replaces the previous one: repeated failures do not stack up on the screen.
    call << appName_ << lastId_ << iconName_ << notification.summary << body << QStringList() << QVariantMap()
         << kDefaultExpiry;
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        const QDBusPendingReply<uint> reply = *w;
        if (!reply.isError()) lastId_ = reply.value();
        if (reply.isError() && !failureLogged_) {
            failureLogged_ = true;
            Log::logf("Desktop notifications are not shown: %s", qUtf8Printable(reply.error().message()));
        }
        w->deleteLater();
    });
}

}  // namespace lumerix
