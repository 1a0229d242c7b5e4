#include "platform/linux/DesktopNotifier.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

#include "log/Log.h"
#include "text/DisplayText.h"

namespace lumerix {

namespace {

constexpr int kDefaultExpiry = -1;  // the server's own timeout

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
    // Receiver names are shown as text: no control characters anywhere, and servers that read
    // markup in the body get it escaped.
    const QString lines = DisplayText::inertLines(notification.body);
    const QString body = markup_ ? DisplayText::escapedMarkup(lines) : lines;
    call << appName_ << 0u << iconName_ << DisplayText::inert(notification.summary) << body << QStringList()
         << QVariantMap() << kDefaultExpiry;
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        const QDBusPendingReply<uint> reply = *w;
        if (reply.isError() && !failureLogged_) {
            failureLogged_ = true;
            Log::logf("Desktop notifications are not shown: %s", qUtf8Printable(reply.error().message()));
        }
        w->deleteLater();
    });
}

}  // namespace lumerix
