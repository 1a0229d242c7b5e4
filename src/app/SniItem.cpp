#include "app/SniItem.h"

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusServiceWatcher>
#include <QImage>
#include <QtEndian>

#include "log/Log.h"

namespace lumerix {

namespace {

constexpr const char* kWatcher = "org.kde.StatusNotifierWatcher";
// Qt names the connection of its n-th tray icon after the item's service name.
constexpr int kMaxQtItems = 8;

SniPixmaps pixmapsOf(const QIcon& icon) {
    SniPixmaps out;
    for (const int size : {16, 22, 32, 48}) {
        const QImage image = icon.pixmap(size, size).toImage().convertToFormat(QImage::Format_ARGB32);
        if (image.isNull()) continue;
        SniPixmap pixmap{image.width(), image.height(), QByteArray()};
        pixmap.argb.resize(static_cast<qsizetype>(image.width()) * image.height() * 4);
        auto* target = reinterpret_cast<quint32*>(pixmap.argb.data());
        for (int y = 0; y < image.height(); ++y) {
            const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
            for (int x = 0; x < image.width(); ++x) *target++ = qToBigEndian(line[x]);
        }
        out << pixmap;
    }
    return out;
}

}  // namespace

QDBusArgument& operator<<(QDBusArgument& out, const SniPixmap& pixmap) {
    out.beginStructure();
    out << pixmap.width << pixmap.height << pixmap.argb;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, SniPixmap& pixmap) {
    in.beginStructure();
    in >> pixmap.width >> pixmap.height >> pixmap.argb;
    in.endStructure();
    return in;
}

QDBusArgument& operator<<(QDBusArgument& out, const SniToolTip& tip) {
    out.beginStructure();
    out << tip.iconName << tip.pixmaps << tip.title << tip.text;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, SniToolTip& tip) {
    in.beginStructure();
    in >> tip.iconName >> tip.pixmaps >> tip.title >> tip.text;
    in.endStructure();
    return in;
}

SniItemAdaptor::SniItemAdaptor(SniItem* item) : QDBusAbstractAdaptor(item), item_(item) {
    setAutoRelaySignals(true);
}

std::unique_ptr<SniItem> SniItem::takeOverQtItem(const QString& iconThemePath) {
    qDBusRegisterMetaType<SniPixmap>();
    qDBusRegisterMetaType<SniPixmaps>();
    qDBusRegisterMetaType<SniToolTip>();
    const qint64 pid = QCoreApplication::applicationPid();
    for (int n = 1; n <= kMaxQtItems; ++n) {
        QDBusConnection bus(QStringLiteral("org.kde.StatusNotifierItem-%1-%2").arg(pid).arg(n));
        if (!bus.isConnected() || !bus.objectRegisteredAt(QLatin1String(kItemPath))) continue;
        std::unique_ptr<SniItem> item(
            new SniItem(bus, bus.objectRegisteredAt(QLatin1String(kMenuPath)), iconThemePath));
        if (!item->install(false)) return nullptr;
        return item;
    }
    return nullptr;
}

SniItem::SniItem(QDBusConnection bus, QObject* menu, QString iconThemePath)
    : bus_(std::move(bus)), menu_(menu), iconThemePath_(std::move(iconThemePath)) {
    new SniItemAdaptor(this);
    // A restarted watcher makes Qt register its own item again, which drops ours and the menu:
    // put both back afterwards (this watcher is connected after Qt's, so it runs later).
    watcher_ = std::make_unique<QDBusServiceWatcher>(QLatin1String(kWatcher), bus_,
                                                     QDBusServiceWatcher::WatchForRegistration);
    QObject::connect(watcher_.get(), &QDBusServiceWatcher::serviceRegistered, this, [this] {
        QMetaObject::invokeMethod(
            this, [this] { install(true); }, Qt::QueuedConnection);
    });
}

SniItem::~SniItem() {
    if (bus_.objectRegisteredAt(QLatin1String(kItemPath)) == this)
        bus_.unregisterObject(QLatin1String(kItemPath));
}

bool SniItem::install(bool afterDrop) {
    const QString path = QLatin1String(kItemPath);
    bool replaced = false;
    if (bus_.objectRegisteredAt(path) != this) {
        replaced = true;
        bus_.unregisterObject(path);
        if (!bus_.registerObject(path, this)) {
            Log::logf("Tray: could not export the status item: %s",
                      qUtf8Printable(bus_.lastError().message()));
            return false;
        }
    }
    if (menu_ && !bus_.objectRegisteredAt(QLatin1String(kMenuPath)))
        bus_.registerObject(QLatin1String(kMenuPath), menu_.data());
    // At the take-over Qt's own announcement is on its way; an item put back after Qt dropped it
    // has to be announced again.
    if (!afterDrop || !replaced) return true;
    QDBusMessage call =
        QDBusMessage::createMethodCall(QLatin1String(kWatcher), QStringLiteral("/StatusNotifierWatcher"),
                                       QLatin1String(kWatcher), QStringLiteral("RegisterStatusNotifierItem"));
    call << bus_.baseService();
    bus_.call(call, QDBus::NoBlock);
    return true;
}

void SniItem::setIcon(const QIcon& icon) {
    iconName_ = icon.name();
    pixmaps_ = pixmapsOf(icon);
    Q_EMIT NewIcon();
}

void SniItem::setToolTip(const QString& text) {
    if (text == toolTip_) return;
    toolTip_ = text;
    Q_EMIT NewToolTip();
}

void SniItem::setNeedsAttention(bool attention) {
    if (attention == attention_) return;
    attention_ = attention;
    Q_EMIT NewStatus(status());
}

QString SniItem::status() const {
    return attention_ ? QStringLiteral("NeedsAttention") : QStringLiteral("Active");
}

SniToolTip SniItem::toolTip() const {
    SniToolTip tip;
    tip.iconName = iconName_;
    // Hosts may read title and body as markup: names are shown as text.
    tip.title = toolTip_.section(QLatin1Char('\n'), 0, 0).toHtmlEscaped();
    tip.text = toolTip_.section(QLatin1Char('\n'), 1).toHtmlEscaped();
    return tip;
}

}  // namespace lumerix
