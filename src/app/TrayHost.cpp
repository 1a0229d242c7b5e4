#include "app/TrayHost.h"

#include <xcb/xcb.h>

#include <QByteArray>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QGuiApplication>
#include <cstdlib>

namespace lumerix {

namespace {

constexpr int kStartupQueryTimeoutMs = 2000;

// Qt puts its icon on a watcher only once the watcher says a host has registered with it.
QDBusMessage hostRegisteredQuery() {
    QDBusMessage get = QDBusMessage::createMethodCall(
        QLatin1String(TrayHost::kWatcherService), QLatin1String(TrayHost::kWatcherPath),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QLatin1String(TrayHost::kWatcherService) << QStringLiteral("IsStatusNotifierHostRegistered");
    get.setAutoStartService(false);
    return get;
}

}  // namespace

TrayHost::TrayHost(std::function<void()> appeared) : appeared_(std::move(appeared)) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    watcher_ = std::make_unique<QDBusServiceWatcher>(QLatin1String(kWatcherService), bus,
                                                     QDBusServiceWatcher::WatchForRegistration);
    QObject::connect(watcher_.get(), &QDBusServiceWatcher::serviceRegistered, this, [this] { askWatcher(); });
    // A watcher may come up before any host has registered with it.
    bus.connect(QLatin1String(kWatcherService), QLatin1String(kWatcherPath), QLatin1String(kWatcherService),
                QStringLiteral("StatusNotifierHostRegistered"), this, SLOT(hostRegistered()));
}

TrayHost::~TrayHost() = default;

void TrayHost::askWatcher() {
    auto* call =
        new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(hostRegisteredQuery()), this);
    QObject::connect(call, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        const QDBusPendingReply<QDBusVariant> reply = *w;
        w->deleteLater();
        if (!reply.isError() && reply.value().variant().toBool()) hostRegistered();
    });
}

void TrayHost::hostRegistered() {
    if (!appeared_) return;
    auto appeared = std::move(appeared_);
    appeared_ = nullptr;
    appeared();
}

bool TrayHost::isRunning() { return statusNotifierHostRegistered() || xembedTrayRunning(); }

bool TrayHost::statusNotifierHostRegistered() {
    const QDBusMessage reply =
        QDBusConnection::sessionBus().call(hostRegisteredQuery(), QDBus::Block, kStartupQueryTimeoutMs);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           reply.arguments().constFirst().value<QDBusVariant>().variant().toBool();
}

bool TrayHost::xembedTrayRunning() {
    // Qt shows XEmbed icons on its xcb platform only.
    if (QGuiApplication::platformName() != QLatin1String("xcb")) return false;
    return xembedSelectionOwned().value_or(false);
}

std::optional<bool> TrayHost::xembedSelectionOwned() {
    int screen = 0;
    xcb_connection_t* x = xcb_connect(nullptr, &screen);
    if (xcb_connection_has_error(x)) {
        xcb_disconnect(x);
        return std::nullopt;
    }
    bool owned = false;
    const QByteArray name = "_NET_SYSTEM_TRAY_S" + QByteArray::number(screen);
    xcb_intern_atom_reply_t* atom = xcb_intern_atom_reply(
        x, xcb_intern_atom(x, 1, static_cast<uint16_t>(name.size()), name.constData()), nullptr);
    if (atom && atom->atom != XCB_ATOM_NONE) {
        xcb_get_selection_owner_reply_t* owner =
            xcb_get_selection_owner_reply(x, xcb_get_selection_owner(x, atom->atom), nullptr);
        owned = owner && owner->owner != XCB_WINDOW_NONE;
        std::free(owner);
    }
    std::free(atom);
    xcb_disconnect(x);
    return owned;
}

}  // namespace lumerix
