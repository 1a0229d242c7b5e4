#pragma once
// The tray icon and its menu: a QSystemTrayIcon (exported as a StatusNotifierItem with a D-Bus
// menu on freedesktop desktops) carrying a QMenu titled "Lumerix". Menu and icon are touched only
// when what they show changes; a click reaches the target with the item object of the menu
// attached last.
#include <QHash>
#include <QIcon>
#include <QString>
#include <memory>

#include "app/TrayMenuPresenter.h"
#include "shell/ShellPorts.h"

class QMenu;
class QSystemTrayIcon;

namespace lumerix {

class QtStatusItem final : public StatusItem, private TrayMenuView {
public:
    // resourcesDir holds "<image name>.svg" for every image the shell names.
    explicit QtStatusItem(QString resourcesDir);
    ~QtStatusItem() override;

    void setTarget(MenuActionTarget* target) override { target_ = target; }
    void setImage(const StatusImageRef& image) override;
    void setMenu(const MenuRef& menu) override;
    bool isMenuOpen() const override { return menuOpen_; }

    QMenu* menu() const { return menu_.get(); }
    QSystemTrayIcon* trayIcon() const { return tray_.get(); }
    // How many times the menu and the icon were actually changed (diagnostics, benchmarks).
    uint64_t menuUpdates() const { return menuUpdates_; }
    uint64_t iconUpdates() const { return iconUpdates_; }

private:
    void insertEntry(int index, const TrayEntry& entry) override;
    void updateEntry(int index, const TrayEntry& entry) override;
    void removeEntry(int index) override;
    void activate(QObject* action);
    QIcon iconFor(const StatusImage& image);

    QString resourcesDir_;
    std::unique_ptr<QMenu> menu_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    TrayMenuPresenter presenter_;
    MenuActionTarget* target_ = nullptr;
    bool menuOpen_ = false;
    QString shownImage_;  // key of the image shown, empty for none
    StatusImageRef lastImage_;
    bool lastImageTemplate_ = false;
    QHash<QString, QIcon> icons_;
    uint64_t menuUpdates_ = 0;
    uint64_t iconUpdates_ = 0;
};

// The desktop's tray; null from makeStatusBar() when the desktop has none.
class QtStatusBar final : public StatusBar {
public:
    explicit QtStatusBar(QString resourcesDir) : resourcesDir_(std::move(resourcesDir)) {}
    // A StatusBar when the desktop offers a system tray, else null (logged).
    static std::shared_ptr<QtStatusBar> makeStatusBar(const QString& resourcesDir);

    StatusItemRef statusItemWithLength(double length) override;
    StatusImageRef imageNamed(const QString& name) override;

private:
    QString resourcesDir_;
};

}  // namespace lumerix
