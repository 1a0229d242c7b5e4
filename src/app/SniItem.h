#pragma once
// The tray item as StatusNotifierItem hosts see it. Qt exports the item itself, but says
// ItemIsMenu false (so a left click asks the program, not the host, for a menu), has no way to set
// Status and gives no IconThemePath. SniItem takes Qt's place at /StatusNotifierItem on Qt's own
// connection, keeping Qt's D-Bus menu at /MenuBar: left and right click then open the same host
// menu, the icon is announced by its theme name (hosts recolour symbolic icons) with pixmaps as a
// fallback, and Status follows the radio. Without an exported Qt item (X11 tray, no host) there is
// nothing to take over and Qt's own tray icon stays as it is.
#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QIcon>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <memory>

class QDBusServiceWatcher;

namespace lumerix {

struct SniPixmap {
    int width = 0;
    int height = 0;
    QByteArray argb;  // ARGB32, network byte order
};
using SniPixmaps = QList<SniPixmap>;

struct SniToolTip {
    QString iconName;
    SniPixmaps pixmaps;
    QString title;
    QString text;
};

class SniItem final : public QObject {
    Q_OBJECT
public:
    static constexpr const char* kItemPath = "/StatusNotifierItem";
    static constexpr const char* kMenuPath = "/MenuBar";

    // Takes over the item Qt exported for this process; null when it exported none.
    static std::unique_ptr<SniItem> takeOverQtItem(const QString& iconThemePath);
    ~SniItem() override;

    void setIcon(const QIcon& icon);
    void setToolTip(const QString& text);  // first line: the title; the rest: the body
    void setNeedsAttention(bool attention);

    // What the host reads.
    QString iconName() const { return iconName_; }
    QString iconThemePath() const { return iconThemePath_; }
    SniPixmaps iconPixmaps() const { return pixmaps_; }
    QString status() const;
    SniToolTip toolTip() const;
    QDBusConnection connection() const { return bus_; }

Q_SIGNALS:
    void NewIcon();
    void NewToolTip();
    void NewStatus(const QString& status);

private:
    SniItem(QDBusConnection bus, QObject* menu, QString iconThemePath);
    // Exports the item (and Qt's menu) where missing; afterDrop: announce an item put back.
    bool install(bool afterDrop);

    QDBusConnection bus_;
    QPointer<QObject> menu_;  // Qt's D-Bus menu, put back if Qt drops it
    QString iconThemePath_;
    QString iconName_;
    SniPixmaps pixmaps_;
    QString toolTip_;
    bool attention_ = false;
    std::unique_ptr<QDBusServiceWatcher> watcher_;
};

// org.kde.StatusNotifierItem on an SniItem.
class SniItemAdaptor final : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category)
    Q_PROPERTY(QString Id READ id)
    Q_PROPERTY(QString Title READ title)
    Q_PROPERTY(QString Status READ status)
    Q_PROPERTY(int WindowId READ windowId)
    Q_PROPERTY(QString IconThemePath READ iconThemePath)
    Q_PROPERTY(QString IconName READ iconName)
    Q_PROPERTY(lumerix::SniPixmaps IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ emptyName)
    Q_PROPERTY(lumerix::SniPixmaps OverlayIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionIconName READ emptyName)
    Q_PROPERTY(lumerix::SniPixmaps AttentionIconPixmap READ noPixmaps)
    Q_PROPERTY(QString AttentionMovieName READ emptyName)
    Q_PROPERTY(lumerix::SniToolTip ToolTip READ toolTip)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu)
    Q_PROPERTY(QDBusObjectPath Menu READ menu)
public:
    explicit SniItemAdaptor(SniItem* item);

    QString category() const { return QStringLiteral("ApplicationStatus"); }
    QString id() const { return QStringLiteral("com.zemko.Lumerix"); }
    QString title() const { return QStringLiteral("Lumerix"); }
    QString status() const { return item_->status(); }
    int windowId() const { return 0; }
    QString iconThemePath() const { return item_->iconThemePath(); }
    QString iconName() const { return item_->iconName(); }
    SniPixmaps iconPixmap() const { return item_->iconPixmaps(); }
    QString emptyName() const { return QString(); }
    SniPixmaps noPixmaps() const { return {}; }
    SniToolTip toolTip() const { return item_->toolTip(); }
    bool itemIsMenu() const { return true; }
    QDBusObjectPath menu() const { return QDBusObjectPath(QLatin1String(SniItem::kMenuPath)); }

public Q_SLOTS:
    // The menu is the item: hosts that still call these get nothing else to show.
    void Activate(int x, int y) {}
    void SecondaryActivate(int x, int y) {}
    void ContextMenu(int x, int y) {}
    void Scroll(int delta, const QString& orientation) {}

Q_SIGNALS:
    void NewIcon();
    void NewToolTip();
    void NewStatus(const QString& status);
    void NewTitle();

private:
    SniItem* item_;
};

QDBusArgument& operator<<(QDBusArgument& out, const SniPixmap& pixmap);
const QDBusArgument& operator>>(const QDBusArgument& in, SniPixmap& pixmap);
QDBusArgument& operator<<(QDBusArgument& out, const SniToolTip& tip);
const QDBusArgument& operator>>(const QDBusArgument& in, SniToolTip& tip);

}  // namespace lumerix

Q_DECLARE_METATYPE(lumerix::SniPixmap)
Q_DECLARE_METATYPE(lumerix::SniToolTip)
