#pragma once
// The status menu as plain data: the shell keeps one and patches it on every refresh, and the
// desktop adapter shows it. Items are shared objects so a chosen item can be found by identity;
// an entry whose title stays the same keeps its object.
#include <QString>
#include <memory>
#include <optional>
#include <vector>

namespace lumerix {

enum class MenuAction {
    None,           // separators
    DeviceConnect,  // DeviceConnectAction
    ShowAbout,
    QuitApp,
};

class MenuItem {
public:
    // A title-less item is allowed (a reference entry without a name).
    static std::shared_ptr<MenuItem> initWithTitle(std::optional<QString> title, MenuAction action,
                                                   QString keyEquivalent = QString());
    static std::shared_ptr<MenuItem> separatorItem();

    MenuItem(std::optional<QString> title, MenuAction action, QString keyEquivalent, bool separator);

    const std::optional<QString>& title() const { return title_; }
    MenuAction action() const { return action_; }
    const QString& keyEquivalent() const { return keyEquivalent_; }
    bool isSeparatorItem() const { return separator_; }

private:
    std::optional<QString> title_;
    MenuAction action_;
    QString keyEquivalent_;
    bool separator_;
};
using MenuItemRef = std::shared_ptr<MenuItem>;

class Menu {
public:
    explicit Menu(QString title) : title_(std::move(title)) {}

    const QString& title() const { return title_; }
    const std::vector<MenuItemRef>& items() const { return items_; }
    int numberOfItems() const { return static_cast<int>(items_.size()); }
    MenuItemRef itemAtIndex(int index) const;
    // First position of the item by identity, -1 when absent.
    int indexOfItem(const MenuItemRef& item) const;

    void addItem(MenuItemRef item);
    // An index past the end appends: the gaps unnamed receivers leave can point beyond the menu,
    // and that happens on every refresh, so it is not logged.
    void insertItem(MenuItemRef item, int index);
    void removeAllItems();
    // Replaces every item; leaves the menu and its revision alone when the items are the same objects.
    void setItems(const std::vector<MenuItemRef>& items);

    // Bumped on every change, so a viewer can tell an unchanged menu from an edited one at once.
    uint64_t revision() const { return revision_; }

private:
    QString title_;
    std::vector<MenuItemRef> items_;
    uint64_t revision_ = 0;
};
using MenuRef = std::shared_ptr<Menu>;

}  // namespace lumerix
