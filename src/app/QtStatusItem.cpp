#include "app/QtStatusItem.h"

#include <QAction>
#include <QCursor>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTextDocument>

#include "app/SniItem.h"
#include "app/TrayHost.h"
#include "log/Log.h"
#include "text/DisplayText.h"

namespace lumerix {

namespace {

QString iconPath(const QString& dir, const QString& name) {
    return dir + QLatin1Char('/') + name + QStringLiteral(".svg");
}

// The design's image names as installed in the hicolor theme. Announced by name, a host draws
// them in the panel's own colours; the files in the resources stand in when no theme has them.
QString themeIconName(const QString& image) {
    if (image == QLatin1String("Normal_Icon")) return QStringLiteral("com.zemko.Lumerix-symbolic");
    if (image == QLatin1String("Normal_Disable_Icon"))
        return QStringLiteral("com.zemko.Lumerix-disabled-symbolic");
    return QString();
}

// Icons differ by name and by whether they are drawn as a mask.
QString imageKey(const StatusImage& image) {
    return image.name() + (image.isTemplate() ? QStringLiteral("/mask") : QStringLiteral("/colour"));
}

// Titles are shown as they are: escaped for the widget menu, or for the dbusmenu label Qt makes of
// the text when the menu is exported.
void show(QAction* action, const TrayEntry& entry, bool exported) {
    action->setSeparator(entry.separator);
    if (entry.separator) {
        action->setText(QString());
    } else {
        action->setText(exported ? DisplayText::dbusMenuTitle(entry.title)
                                 : DisplayText::menuTitle(entry.title));
    }
}

}  // namespace

QtStatusItem::QtStatusItem(QString resourcesDir, bool inTray)
    : resourcesDir_(std::move(resourcesDir)), menu_(std::make_unique<QMenu>()), presenter_(*this) {
    menu_->setTitle(QStringLiteral("Lumerix"));
    QObject::connect(menu_.get(), &QMenu::aboutToShow, menu_.get(), [this] {
        menuOpen_ = true;
        if (menuOpenNote_) menuOpenNote_(true);
    });
    QObject::connect(menu_.get(), &QMenu::aboutToHide, menu_.get(), [this] {
        menuOpen_ = false;
        if (menuOpenNote_) menuOpenNote_(false);
        // The widget popup is gone: the exported labels come back.
        if (tray_ && exportsMenu() && !exported_) showTitles(true);
    });
    QObject::connect(menu_.get(), &QMenu::triggered, menu_.get(),
                     [this](QAction* action) { activate(action); });
    if (inTray) attachToTray();
}

QtStatusItem::~QtStatusItem() {
    sni_.reset();
    if (!tray_) return;
    tray_->hide();
    tray_->setContextMenu(nullptr);
    tray_.reset();
}

void QtStatusItem::attachToTray() {
    if (tray_) return;
    tray_ = std::make_unique<QSystemTrayIcon>();
    tray_->setContextMenu(menu_.get());
    showTitles(exportsMenu());
    tray_->setToolTip(shownToolTip());
    // A left click opens the same menu, as a menu-bar item does; that popup is the widget menu,
    // which reads its titles the widget way while it is open.
    QObject::connect(tray_.get(), &QSystemTrayIcon::activated, menu_.get(),
                     [this](QSystemTrayIcon::ActivationReason reason) {
                         // A StatusNotifierItem host opens its own menu (ItemIsMenu) instead.
                         if (reason != QSystemTrayIcon::Trigger || sni_ || menu_->isVisible()) return;
                         showTitles(false);
                         menu_->popup(QCursor::pos());
                     });
    if (!shownIcon_.isNull()) {
        tray_->setIcon(shownIcon_);
        showInTray();
    }
}

void QtStatusItem::showInTray() {
    tray_->show();
    // Without a windowing system (offscreen, as in tests) Qt exports no item to take over, and
    // looking for one would only start Qt's D-Bus thread.
    if (sni_ || QGuiApplication::platformName() == QLatin1String("offscreen")) return;
    const QString themes = QFileInfo(resourcesDir_ + QStringLiteral("/../icons")).absoluteFilePath();
    sni_ = SniItem::takeOverQtItem(QFileInfo::exists(themes) ? themes : QString());
    if (!sni_) return;
    sni_->setIcon(shownIcon_);
    sni_->setToolTip(toolTip_);
    sni_->setNeedsAttention(needsAttention_);
}

void QtStatusItem::setNeedsAttention(bool attention) {
    needsAttention_ = attention;
    if (sni_) sni_->setNeedsAttention(attention);
}

void QtStatusItem::setImage(const StatusImageRef& image) {
    // The shell passes the same image object on every refresh.
    if (image == lastImage_ && (!image || image->isTemplate() == lastImageTemplate_)) return;
    lastImage_ = image;
    lastImageTemplate_ = image && image->isTemplate();
    const QString key = image ? imageKey(*image) : QString();
    if (key == shownImage_) return;
    shownImage_ = key;
    ++iconUpdates_;
    shownIcon_ = image ? iconFor(*image) : QIcon();
    if (!tray_) return;
    tray_->setIcon(shownIcon_);
    if (sni_) sni_->setIcon(shownIcon_);
    // Shown with its first icon: an icon-less tray item would be an empty slot.
    if (image && !tray_->isVisible()) showInTray();
}

void QtStatusItem::setToolTip(const QString& text) {
    if (text == toolTip_) return;
    toolTip_ = text;
    if (tray_) tray_->setToolTip(shownToolTip());
    if (sni_) sni_->setToolTip(toolTip_);
}

bool QtStatusItem::exportsMenu() const {
#ifdef Q_OS_MACOS
    return false;  // the native menu bar reads '&' as the widget menu does
#else
    // Qt gives the menu a platform menu when the tray is a StatusNotifierItem exporting it.
    return tray_ && menu_->platformMenu() != nullptr;
#endif
}

void QtStatusItem::showTitles(bool exported) {
    if (exported == exported_) return;
    exported_ = exported;
    const QList<QAction*> actions = menu_->actions();
    const std::vector<TrayEntry>& shown = presenter_.shown();
    for (qsizetype i = 0; i < actions.size() && i < static_cast<qsizetype>(shown.size()); ++i)
        lumerix::show(actions.at(i), shown[static_cast<size_t>(i)], exported_);
}

QString QtStatusItem::shownToolTip() const {
    // A StatusNotifierItem host may read the tooltip as markup; an X11 tooltip does when the text
    // looks like markup, and is then given the plain text in markup form.
    if (exportsMenu()) return DisplayText::escapedMarkup(toolTip_);
    if (Qt::mightBeRichText(toolTip_)) return Qt::convertFromPlainText(toolTip_, Qt::WhiteSpaceNormal);
    return toolTip_;
}

QIcon QtStatusItem::iconFor(const StatusImage& image) {
    const QString key = imageKey(image);
    auto cached = icons_.constFind(key);
    if (cached != icons_.constEnd()) return *cached;
    const QString themed = themeIconName(image.name());
    QIcon icon = !themed.isEmpty() && QIcon::hasThemeIcon(themed)
                     ? QIcon::fromTheme(themed)
                     : QIcon(iconPath(resourcesDir_, image.name()));
    if (icon.pixmap(22, 22).isNull()) {
        Log::logf("Tray icon %s could not be loaded from %s", image.name().toUtf8().constData(),
                  resourcesDir_.toUtf8().constData());
    }
    icon.setIsMask(image.isTemplate());
    icons_.insert(key, icon);
    return icon;
}

void QtStatusItem::setMenu(const MenuRef& menu) {
    if (presenter_.apply(menu)) ++menuUpdates_;
}

void QtStatusItem::insertEntry(int index, const TrayEntry& entry) {
    auto* action = new QAction(menu_.get());
    lumerix::show(action, entry, exported_);
    const QList<QAction*> actions = menu_->actions();
    menu_->insertAction(index < actions.size() ? actions.at(index) : nullptr, action);
}

void QtStatusItem::updateEntry(int index, const TrayEntry& entry) {
    const QList<QAction*> actions = menu_->actions();
    if (index < actions.size()) lumerix::show(actions.at(index), entry, exported_);
}

void QtStatusItem::removeEntry(int index) {
    const QList<QAction*> actions = menu_->actions();
    if (index >= actions.size()) return;
    QAction* action = actions.at(index);
    menu_->removeAction(action);
    // The action may be the one whose click is being handled right now.
    action->deleteLater();
}

void QtStatusItem::activate(QObject* action) {
    const int row = static_cast<int>(menu_->actions().indexOf(static_cast<QAction*>(action)));
    MenuItemRef item = presenter_.itemAt(row);
    if (!item) {
        Log::logf("Tray menu: a click on row %d matches no menu entry", row);
        return;
    }
    if (target_) target_->performMenuAction(item);
}

QtStatusBar::~QtStatusBar() = default;

std::shared_ptr<QtStatusBar> QtStatusBar::makeStatusBar(const QString& resourcesDir) {
    if (TrayHost::isRunning()) return std::make_shared<QtStatusBar>(resourcesDir);
    Log::logf("No system tray on this desktop: running without a tray icon");
    auto bar = std::make_shared<QtStatusBar>(resourcesDir, false);
    bar->hostWatch_ = std::make_unique<TrayHost>([weak = std::weak_ptr<QtStatusBar>(bar)] {
        if (auto self = weak.lock()) self->trayHostAppeared();
    });
    return bar;
}

void QtStatusBar::trayHostAppeared() {
    if (trayAvailable_) return;
    trayAvailable_ = true;
    Log::logf("A system tray came up: showing the tray icon");
    for (const auto& waiting : waiting_) {
        if (auto item = waiting.lock()) item->attachToTray();
    }
    waiting_.clear();
}

StatusItemRef QtStatusBar::statusItemWithLength(double) {
    auto item = std::make_shared<QtStatusItem>(resourcesDir_, trayAvailable_);
    item->setMenuOpenNote(menuOpenNote_);
    if (!trayAvailable_) waiting_.push_back(item);
    return item;
}

StatusImageRef QtStatusBar::imageNamed(const QString& name) {
    if (!QFileInfo::exists(iconPath(resourcesDir_, name))) {
        Log::logf("Image %s is missing from %s", name.toUtf8().constData(),
                  resourcesDir_.toUtf8().constData());
        return nullptr;
    }
    return std::make_shared<StatusImage>(name);
}

}  // namespace lumerix
