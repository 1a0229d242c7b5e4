#pragma once
// The tray icon and its menu: a QSystemTrayIcon (exported as a StatusNotifierItem with a D-Bus
// menu on freedesktop desktops) carrying a QMenu titled "Lumerix". Menu and icon are touched only
// when what they show changes; a click reaches the target with the item object of the menu
// attached last. On a desktop without a tray host the menu, icon and tooltip are kept up to date
// and the tray icon itself is made once a host comes up.
#include <QHash>
#include <QIcon>
#include <QString>
#include <functional>
#include <memory>
#include <vector>

#include "app/TrayMenuPresenter.h"
#include "shell/ShellPorts.h"

class QMenu;
class QSystemTrayIcon;

namespace lumerix {

class SniItem;

class QtStatusItem final : public StatusItem, private TrayMenuView {
public:
    // resourcesDir holds "<image name>.svg" for every image the shell names. Without inTray the
    // tray icon waits for attachToTray().
    explicit QtStatusItem(QString resourcesDir, bool inTray = true);
    ~QtStatusItem() override;

    void setTarget(MenuActionTarget* target) override { target_ = target; }
    void setImage(const StatusImageRef& image) override;
    void setMenu(const MenuRef& menu) override;
    bool isMenuOpen() const override { return menuOpen_; }
    // Told when the menu opens (true) and closes (false).
    void setMenuOpenNote(std::function<void(bool open)> note) { menuOpenNote_ = std::move(note); }
    void setToolTip(const QString& text) override;
    void setNeedsAttention(bool attention) override;
    // Makes the tray icon with the current menu, icon and tooltip; once only.
    void attachToTray();

    QMenu* menu() const { return menu_.get(); }
    QSystemTrayIcon* trayIcon() const { return tray_.get(); }  // null until attached
    // The StatusNotifierItem hosts see; null on an X11 tray or before the icon is shown.
    SniItem* statusNotifierItem() const { return sni_.get(); }
    // How many times the menu and the icon were actually changed (diagnostics, benchmarks).
    uint64_t menuUpdates() const { return menuUpdates_; }
    uint64_t iconUpdates() const { return iconUpdates_; }

private:
    void insertEntry(int index, const TrayEntry& entry) override;
    void updateEntry(int index, const TrayEntry& entry) override;
    void removeEntry(int index) override;
    void activate(QObject* action);
    void showInTray();
    // True when the tray exports the menu over D-Bus (a StatusNotifierItem host shows it).
    bool exportsMenu() const;
    // Titles in the dbusmenu form (exported) or the widget form.
    void showTitles(bool exported);
    QString shownToolTip() const;
    QIcon iconFor(const StatusImage& image);

    QString resourcesDir_;
    std::unique_ptr<QMenu> menu_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    std::unique_ptr<SniItem> sni_;
    bool needsAttention_ = false;
    TrayMenuPresenter presenter_;
    MenuActionTarget* target_ = nullptr;
    bool menuOpen_ = false;
    bool exported_ = false;  // the form the titles are in, see showTitles()
    std::function<void(bool)> menuOpenNote_;
    QString shownImage_;  // key of the image shown, empty for none
    StatusImageRef lastImage_;
    bool lastImageTemplate_ = false;
    QIcon shownIcon_;
    QString toolTip_ = QStringLiteral("Lumerix");
    QHash<QString, QIcon> icons_;
    uint64_t menuUpdates_ = 0;
    uint64_t iconUpdates_ = 0;
};

// The desktop's tray. Without a tray host its items wait, and are put in the tray when
// trayHostAppeared() is called.
class QtStatusBar final : public StatusBar {
public:
    explicit QtStatusBar(QString resourcesDir, bool trayAvailable = true)
        : resourcesDir_(std::move(resourcesDir)), trayAvailable_(trayAvailable) {}
    ~QtStatusBar() override;
    // Asks the desktop for a tray host (logged when there is none) and watches for one to come.
    static std::shared_ptr<QtStatusBar> makeStatusBar(const QString& resourcesDir);

    StatusItemRef statusItemWithLength(double length) override;
    StatusImageRef imageNamed(const QString& name) override;
    bool isTrayAvailable() const override { return trayAvailable_; }
    void trayHostAppeared();
    // Given to every status item made from now on (QtStatusItem::setMenuOpenNote).
    void setMenuOpenNote(std::function<void(bool open)> note) { menuOpenNote_ = std::move(note); }

private:
    QString resourcesDir_;
    std::function<void(bool)> menuOpenNote_;
    bool trayAvailable_;
    std::vector<std::weak_ptr<QtStatusItem>> waiting_;
    std::unique_ptr<QObject> hostWatch_;
};

}  // namespace lumerix
