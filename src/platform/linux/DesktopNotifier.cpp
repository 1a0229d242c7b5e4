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
    // Bound to the server's name, so that only its owner's signals count.
    bus_.connect(QLatin1String(kService), QLatin1String(kPath), QLatin1String(kService),
                 QStringLiteral("ActionInvoked"), this, SLOT(actionInvoked(uint, QString)));
    bus_.connect(QLatin1String(kService), QLatin1String(kPath), QLatin1String(kService),
                 QStringLiteral("NotificationClosed"), this, SLOT(notificationClosed(uint, uint)));
    const QDBusMessage call =
        QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath), QLatin1String(kService),
                                       QStringLiteral("GetCapabilities"));
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        const QDBusPendingReply<QStringList> reply = *w;
        if (!reply.isError()) {
            markup_ = reply.value().contains(QStringLiteral("body-markup"));
            actions_ = reply.value().contains(QStringLiteral("actions"));
        }
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
    QStringList actions;  // key, label, key, label...
    std::vector<NotificationAction> buttons;
    if (actions_) {
        buttons = notification.actions;
        for (const NotificationAction& a : buttons) actions << a.key << a.label;
    }
    // Each bubble replaces the previous one: repeated failures do not stack up on the screen.
    call << appName_ << lastId_ << iconName_ << DisplayText::inert(notification.summary) << body << actions
         << QVariantMap() << kDefaultExpiry;
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    QObject::connect(
        watcher, &QDBusPendingCallWatcher::finished, this,
        [this, buttons = std::move(buttons)](QDBusPendingCallWatcher* w) mutable {
            const QDBusPendingReply<uint> reply = *w;
            if (!reply.isError()) {
                lastId_ = reply.value();
                // A replaced bubble keeps its id: its old buttons go with it.
                std::erase_if(buttons_, [id = lastId_](const auto& shown) { return shown.first == id; });
            }
            if (!reply.isError() && !buttons.empty()) {
                if (buttons_.size() >= kKeptNotifications) buttons_.pop_front();
                buttons_.emplace_back(reply.value(), std::move(buttons));
            }
            if (reply.isError() && !failureLogged_) {
                failureLogged_ = true;
                Log::logf("Desktop notifications are not shown: %s", qUtf8Printable(reply.error().message()));
            }
            w->deleteLater();
        });
}

void DesktopNotifier::actionInvoked(uint id, const QString& key) {
    for (const auto& [shownId, actions] : buttons_) {
        if (shownId != id) continue;
        for (const NotificationAction& a : actions) {
            if (a.key != key || !a.invoke) continue;
            Log::logf("Notification button \"%s\" pressed", qUtf8Printable(a.label));
            const std::function<void()> invoke = a.invoke;  // the list may change while it runs
            invoke();
            return;
        }
        return;
    }
}

void DesktopNotifier::notificationClosed(uint id, uint /*reason*/) {
    for (auto it = buttons_.begin(); it != buttons_.end(); ++it) {
        if (it->first == id) {
            buttons_.erase(it);
            return;
        }
    }
}

}  // namespace lumerix
