#pragma once
// Desktop notifications over org.freedesktop.Notifications on the session bus. Every call is
// asynchronous; with no notification server the notification is dropped and that is logged once.
// Bodies are escaped only for servers that announce the "body-markup" capability; buttons are
// sent only to servers that announce "actions", and a press (ActionInvoked) runs the button's
// action on the main thread. Buttons are kept until their notification is closed, for at most
// the last few notifications. A notification replaces the one shown before it (replaces_id), so
// there is one Lumerix bubble at a time.
#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <deque>
#include <utility>
#include <vector>

#include "shell/ShellPorts.h"

namespace lumerix {

class DesktopNotifier final : public QObject, public Notifier {
    Q_OBJECT

public:
    static constexpr const char* kService = "org.freedesktop.Notifications";
    static constexpr const char* kPath = "/org/freedesktop/Notifications";
    static constexpr size_t kKeptNotifications = 16;

    // appName and iconName are shown with every notification.
    DesktopNotifier(QDBusConnection sessionBus, QString appName, QString iconName);

    void notify(const Notification& notification) override;

private Q_SLOTS:
    void actionInvoked(uint id, const QString& key);
    void notificationClosed(uint id, uint reason);

private:
    QDBusConnection bus_;
    QString appName_;
    QString iconName_;
    bool failureLogged_ = false;
    uint lastId_ = 0;       // the server's id of the last bubble; 0: none yet
    bool markup_ = false;   // until the server says otherwise, bodies go out as they are
    bool actions_ = false;  // likewise, no buttons
    // Buttons of the notifications shown, oldest first, by the server's notification id.
    std::deque<std::pair<uint, std::vector<NotificationAction>>> buttons_;
};

}  // namespace lumerix
