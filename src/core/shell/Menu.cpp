#include "shell/Menu.h"

namespace lumerix {

std::shared_ptr<MenuItem> MenuItem::initWithTitle(std::optional<QString> title, MenuAction action,
                                                  QString keyEquivalent) {
    return std::make_shared<MenuItem>(std::move(title), action, std::move(keyEquivalent), false);
}

std::shared_ptr<MenuItem> MenuItem::separatorItem() {
    return std::make_shared<MenuItem>(std::nullopt, MenuAction::None, QString(), true);
}

MenuItem::MenuItem(std::optional<QString> title, MenuAction action, QString keyEquivalent, bool separator)
    : title_(std::move(title)),
      action_(action),
      keyEquivalent_(std::move(keyEquivalent)),
      separator_(separator) {}

MenuItemRef Menu::itemAtIndex(int index) const {
    if (index < 0 || index >= numberOfItems()) return nullptr;
    return items_[static_cast<size_t>(index)];
}

int Menu::indexOfItem(const MenuItemRef& item) const {
    for (size_t i = 0; i < items_.size(); ++i) {
        if (items_[i] == item) return static_cast<int>(i);
    }
    return -1;
}

void Menu::addItem(MenuItemRef item) {
    if (!item) return;
    items_.push_back(std::move(item));
    ++revision_;
}

void Menu::insertItem(MenuItemRef item, int index) {
    if (!item) return;
    if (index < 0 || index > numberOfItems()) index = numberOfItems();
    items_.insert(items_.begin() + index, std::move(item));
    ++revision_;
}

void Menu::removeAllItems() {
    if (items_.empty()) return;
    items_.clear();
    ++revision_;
}

void Menu::setItems(const std::vector<MenuItemRef>& items) {
    if (items == items_) return;
    items_ = items;
    ++revision_;
}

}  // namespace lumerix
