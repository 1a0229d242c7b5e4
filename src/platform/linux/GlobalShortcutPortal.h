#pragma once
// One global shortcut through the desktop portal (org.freedesktop.portal.GlobalShortcuts):
// a session is created, the shortcut bound in it (the desktop lets the user pick or confirm the
// keys), and every Activated signal of that session for that shortcut runs the callback on the
// main thread. A desktop whose portal offers no global shortcuts gets one log line and nothing
// else.
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <functional>

namespace lumerix {

class GlobalShortcutPortal final : public QObject {
    Q_OBJECT

public:
    static constexpr const char* kService = "org.freedesktop.portal.Desktop";
    static constexpr const char* kPath = "/org/freedesktop/portal/desktop";
    static constexpr const char* kInterface = "org.freedesktop.portal.GlobalShortcuts";
    static constexpr const char* kRequestInterface = "org.freedesktop.portal.Request";

    // id: stable shortcut name; description: what the desktop shows the user; preferredTrigger:
    // the keys suggested (the desktop may ignore it).
    GlobalShortcutPortal(QDBusConnection sessionBus, QString id, QString description,
                         QString preferredTrigger, std::function<void()> activated);

    // Starts the session; the rest follows asynchronously.
    void start();
    bool isBound() const { return bound_; }

private Q_SLOTS:
    void requestResponse(uint response, const QVariantMap& results, const QDBusMessage& signal);
    void shortcutActivated(const QDBusMessage& signal);

private:
    enum class Step { None, CreatingSession, Binding };
    // The path the portal will answer a request with `token` on (known before the call, so the
    // answer cannot be missed).
    QString requestPath(const QString& token) const;
    void call(const QString& method, const QList<QVariant>& arguments, const QString& token, Step step);
    void bind();
    void unavailable(const QString& why);

    QDBusConnection bus_;
    QString id_;
    QString description_;
    QString preferredTrigger_;
    std::function<void()> activated_;
    Step step_ = Step::None;
    QString pendingRequest_;
    QString session_;
    bool bound_ = false;
    int tokens_ = 0;
};

}  // namespace lumerix
