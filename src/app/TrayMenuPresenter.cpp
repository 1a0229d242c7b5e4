#include "app/TrayMenuPresenter.h"

#include <algorithm>

namespace lumerix {

TrayEntry TrayEntry::of(const MenuItem& item) {
    if (item.isSeparatorItem()) return {true, QString()};
    return {false, item.title().value_or(QString())};
}

bool TrayMenuPresenter::apply(const MenuRef& menu) {
    if (menu && menu == menu_ && menu->revision() == revision_) return false;
    menu_ = menu;
    revision_ = menu ? menu->revision() : 0;
    std::vector<MenuItemRef> items;
    std::vector<TrayEntry> wanted;
    if (menu) {
        items = menu->items();
        wanted.reserve(items.size());
        for (const MenuItemRef& item : items) wanted.push_back(item ? TrayEntry::of(*item) : TrayEntry{});
    }
    items_ = std::move(items);
    if (wanted == shown_) return false;

    // Keep the common head and tail; edit rows in place across the middle, then insert or remove
    // what is left. A receiver appearing, leaving or two swapping places costs one or two edits.
    const size_t oldSize = shown_.size();
    const size_t newSize = wanted.size();
    size_t head = 0;
    while (head < oldSize && head < newSize && shown_[head] == wanted[head]) ++head;
    size_t tail = 0;
    while (tail < oldSize - head && tail < newSize - head &&
           shown_[oldSize - 1 - tail] == wanted[newSize - 1 - tail]) {
        ++tail;
    }
    const size_t oldMiddle = oldSize - head - tail;
    const size_t newMiddle = newSize - head - tail;
    const size_t common = std::min(oldMiddle, newMiddle);
    for (size_t i = 0; i < common; ++i) {
        const size_t row = head + i;
        if (shown_[row] != wanted[row]) view_.updateEntry(static_cast<int>(row), wanted[row]);
    }
    for (size_t i = common; i < oldMiddle; ++i) view_.removeEntry(static_cast<int>(head + common));
    for (size_t i = common; i < newMiddle; ++i)
        view_.insertEntry(static_cast<int>(head + i), wanted[head + i]);
    shown_ = std::move(wanted);
    return true;
}

MenuItemRef TrayMenuPresenter::itemAt(int row) const {
    if (row < 0 || static_cast<size_t>(row) >= items_.size()) return nullptr;
    return items_[static_cast<size_t>(row)];
}

}  // namespace lumerix
