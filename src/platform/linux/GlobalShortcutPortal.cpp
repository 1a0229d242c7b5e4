#include "platform/linux/GlobalShortcutPortal.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include "log/Log.h"

namespace lumerix {

// a(sa{sv}): the shortcuts to bind, each an id and its properties.
struct PortalShortcutSpec {
    QString id;
    QVariantMap properties;
};

QDBusArgument& operator<<(QDBusArgument& out, const PortalShortcutSpec& s) {
    out.beginStructure();
    out << s.id << s.properties;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, PortalShortcutSpec& s) {
    in.beginStructure();
    in >> s.id >> s.properties;
    in.endStructure();
    return in;
}

}  // namespace lumerix

Q_DECLARE_METATYPE(lumerix::PortalShortcutSpec)

namespace lumerix {

GlobalShortcutPortal::GlobalShortcutPortal(QDBusConnection sessionBus, QString id, QString description,
                                           QString preferredTrigger, std::function<void()> activated)
    : bus_(std::move(sessionBus)),
      id_(std::move(id)),
      description_(std::move(description)),
      preferredTrigger_(std::move(preferredTrigger)),
      activated_(std::move(activated)) {
    qDBusRegisterMetaType<PortalShortcutSpec>();
    qDBusRegisterMetaType<QList<PortalShortcutSpec>>();
}

QString GlobalShortcutPortal::requestPath(const QString& token) const {
    QString sender = bus_.baseService();
    sender.remove(0, sender.startsWith(QLatin1Char(':')) ? 1 : 0);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    return QStringLiteral("%1/request/%2/%3").arg(QLatin1String(kPath), sender, token);
}

void GlobalShortcutPortal::start() {
    if (!bus_.isConnected()) return unavailable(QStringLiteral("no session bus"));
    // Activated carries the session; only ours counts (checked in the slot).
    bus_.connect(QLatin1String(kService), QLatin1String(kPath), QLatin1String(kInterface),
                 QStringLiteral("Activated"), this, SLOT(shortcutActivated(QDBusMessage)));
    const QString token = QStringLiteral("lumerix_session_%1").arg(++tokens_);
    const QVariantMap options{{QStringLiteral("handle_token"), token},
                              {QStringLiteral("session_handle_token"), QStringLiteral("lumerix")}};
    call(QStringLiteral("CreateSession"), {options}, token, Step::CreatingSession);
}

void GlobalShortcutPortal::call(const QString& method, const QList<QVariant>& arguments, const QString& token,
                                Step step) {
    pendingRequest_ = requestPath(token);
    step_ = step;
    bus_.connect(QLatin1String(kService), pendingRequest_, QLatin1String(kRequestInterface),
                 QStringLiteral("Response"), this, SLOT(requestResponse(uint, QVariantMap, QDBusMessage)));
    QDBusMessage message = QDBusMessage::createMethodCall(QLatin1String(kService), QLatin1String(kPath),
                                                          QLatin1String(kInterface), method);
    message.setArguments(arguments);
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(message), this);
    QObject::connect(
        watcher, &QDBusPendingCallWatcher::finished, this,
        [this, method, expected = pendingRequest_](QDBusPendingCallWatcher* w) {
            const QDBusPendingReply<QDBusObjectPath> reply = *w;
            w->deleteLater();
            // The portal may answer before its reply arrives, and the next request may be under way.
            if (pendingRequest_ != expected) return;
            if (reply.isError()) {
                unavailable(QStringLiteral("the desktop portal offers no global shortcuts (%1: %2)")
                                .arg(method, reply.error().message()));
            } else if (reply.value().path() != pendingRequest_) {
                // An older portal picks its own request path: follow it.
                bus_.disconnect(QLatin1String(kService), pendingRequest_, QLatin1String(kRequestInterface),
                                QStringLiteral("Response"), this,
                                SLOT(requestResponse(uint, QVariantMap, QDBusMessage)));
                pendingRequest_ = reply.value().path();
                bus_.connect(QLatin1String(kService), pendingRequest_, QLatin1String(kRequestInterface),
                             QStringLiteral("Response"), this,
                             SLOT(requestResponse(uint, QVariantMap, QDBusMessage)));
            }
        });
}

void GlobalShortcutPortal::requestResponse(uint response, const QVariantMap& results,
                                           const QDBusMessage& signal) {
    if (signal.path() != pendingRequest_ || step_ == Step::None) return;
    bus_.disconnect(QLatin1String(kService), pendingRequest_, QLatin1String(kRequestInterface),
                    QStringLiteral("Response"), this, SLOT(requestResponse(uint, QVariantMap, QDBusMessage)));
    const Step step = std::exchange(step_, Step::None);
    if (response != 0) {
        // 1: the user said no; 2: anything else.
        return unavailable(response == 1 ? QStringLiteral("the desktop declined it")
                                         : QStringLiteral("the portal ended the request (%1)").arg(response));
    }
    if (step == Step::CreatingSession) {
        const QVariant handle = results.value(QStringLiteral("session_handle"));
        // A string in the portal's documentation, an object path from some implementations.
        session_ = handle.userType() == qMetaTypeId<QDBusObjectPath>()
                       ? handle.value<QDBusObjectPath>().path()
                       : handle.toString();
        if (session_.isEmpty()) return unavailable(QStringLiteral("the portal gave no session"));
        bind();
    } else if (step == Step::Binding) {
        bound_ = true;
        QString trigger;
        const auto shortcuts = results.value(QStringLiteral("shortcuts")).value<QDBusArgument>();
        if (shortcuts.currentType() == QDBusArgument::ArrayType) {
            QList<PortalShortcutSpec> bound;
            shortcuts >> bound;
            for (const PortalShortcutSpec& s : bound) {
                if (s.id == id_)
                    trigger = s.properties.value(QStringLiteral("trigger_description")).toString();
            }
        }
        Log::logf("Global shortcut \"%s\" bound%s%s", qUtf8Printable(description_),
                  trigger.isEmpty() ? "" : " to ", qUtf8Printable(trigger));
    }
}

void GlobalShortcutPortal::bind() {
    const QString token = QStringLiteral("lumerix_bind_%1").arg(++tokens_);
    PortalShortcutSpec shortcut{id_, {{QStringLiteral("description"), description_}}};
    if (!preferredTrigger_.isEmpty())
        shortcut.properties.insert(QStringLiteral("preferred_trigger"), preferredTrigger_);
    const QVariantMap options{{QStringLiteral("handle_token"), token}};
    call(QStringLiteral("BindShortcuts"),
         {QVariant::fromValue(QDBusObjectPath(session_)),
          QVariant::fromValue(QList<PortalShortcutSpec>{shortcut}), QString(), options},
         token, Step::Binding);
}

void GlobalShortcutPortal::shortcutActivated(const QDBusMessage& signal) {
    // (o session_handle, s shortcut_id, t timestamp, a{sv} options); read by hand, as the
    // session handle's type differs between portal versions.
    const QList<QVariant> args = signal.arguments();
    if (session_.isEmpty() || args.size() < 2) return;
    const QVariant& session = args[0];
    const QString path = session.userType() == qMetaTypeId<QDBusObjectPath>()
                             ? session.value<QDBusObjectPath>().path()
                             : session.toString();
    if (path != session_ || args[1].toString() != id_) return;
    Log::logf("Global shortcut \"%s\" pressed", qUtf8Printable(description_));
    if (activated_) activated_();
}

void GlobalShortcutPortal::unavailable(const QString& why) {
    step_ = Step::None;
    Log::logf("Global shortcut \"%s\" is not available: %s", qUtf8Printable(description_),
              qUtf8Printable(why));
}

}  // namespace lumerix
