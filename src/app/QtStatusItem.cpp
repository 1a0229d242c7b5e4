#include "app/QtStatusItem.h"

#include <QAction>
#include <QCursor>
#include <QFileInfo>
#include <QMenu>
#include <QSystemTrayIcon>

#include "app/TrayHost.h"
#include "log/Log.h"

namespace lumerix {

namespace {

QString iconPath(const QString& dir, const QString& name) {
    return dir + QLatin1Char('/') + name + QStringLiteral(".svg");
}

// '&' marks a mnemonic in a QAction's text; receiver names are shown as they are.
QString escapedTitle(const QString& title) {
    QString text = title;
    text.replace(QLatin1Char('&'), QStringLiteral("&&"));
    return text;
}

// Icons differ by name and by whether they are drawn as a mask.
QString imageKey(const StatusImage& image) {
    return image.name() + (image.isTemplate() ? QStringLiteral("/mask") : QStringLiteral("/colour"));
}

void show(QAction* action, const TrayEntry& entry) {
    action->setSeparator(entry.separator);
    action->setText(entry.separator ? QString() : escapedTitle(entry.title));
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
    });
    QObject::connect(menu_.get(), &QMenu::triggered, menu_.get(),
                     [this](QAction* action) { activate(action); });
    if (inTray) attachToTray();
}

QtStatusItem::~QtStatusItem() {
    if (!tray_) return;
    tray_->hide();
    tray_->setContextMenu(nullptr);
    tray_.reset();
}

void QtStatusItem::attachToTray() {
    if (tray_) return;
    tray_ = std::make_unique<QSystemTrayIcon>();
    tray_->setToolTip(toolTip_);
    tray_->setContextMenu(menu_.get());
    // A left click opens the same menu, as a menu-bar item does.
    QObject::connect(tray_.get(), &QSystemTrayIcon::activated, menu_.get(),
                     [this](QSystemTrayIcon::ActivationReason reason) {
                         if (reason == QSystemTrayIcon::Trigger && !menu_->isVisible())
                             menu_->popup(QCursor::pos());
                     });
    if (!shownIcon_.isNull()) {
        tray_->setIcon(shownIcon_);
        tray_->show();
    }
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
    // Shown with its first icon: an icon-less tray item would be an empty slot.
    if (image && !tray_->isVisible()) tray_->show();
}

void QtStatusItem::setToolTip(const QString& text) {
    if (text == toolTip_) return;
    toolTip_ = text;
    if (tray_) tray_->setToolTip(text);
}

QIcon QtStatusItem::iconFor(const StatusImage& image) {
    const QString key = imageKey(image);
    auto cached = icons_.constFind(key);
    if (cached != icons_.constEnd()) return *cached;
    QIcon icon(iconPath(resourcesDir_, image.name()));
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
    lumerix::show(action, entry);
    const QList<QAction*> actions = menu_->actions();
    menu_->insertAction(index < actions.size() ? actions.at(index) : nullptr, action);
}

void QtStatusItem::updateEntry(int index, const TrayEntry& entry) {
    const QList<QAction*> actions = menu_->actions();
    if (index < actions.size()) lumerix::show(actions.at(index), entry);
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
