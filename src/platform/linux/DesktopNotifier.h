#pragma once
// Desktop notifications over org.freedesktop.Notifications on the session bus. Every call is
// asynchronous; with no notification server the notification is dropped and that is logged once.
// Bodies are escaped only for servers that announce the "body-markup" capability. A notification
// replaces the one shown before it (replaces_id), so there is one Lumerix bubble at a time.
#include <QDBusConnection>
#include <QObject>
#include <QString>

#include "shell/ShellPorts.h"

namespace lumerix {

class DesktopNotifier final : public QObject, public Notifier {
public:
    static constexpr const char* kService = "org.freedesktop.Notifications";
    static constexpr const char* kPath = "/org/freedesktop/Notifications";

    // appName and iconName are shown with every notification.
    DesktopNotifier(QDBusConnection sessionBus, QString appName, QString iconName);

    void notify(const Notification& notification) override;

private:
    QDBusConnection bus_;
    QString appName_;
    QString iconName_;
    bool failureLogged_ = false;
    uint lastId_ = 0;      // the server's id of the last bubble; 0: none yet
    bool markup_ = false;  // until the server says otherwise, bodies go out as they are
};

}  // namespace lumerix
