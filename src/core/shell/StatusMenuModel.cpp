#include "shell/StatusMenuModel.h"

#include <QCoreApplication>
#include <QVariantMap>

#include "shell/ReceiverRow.h"

namespace lumerix {

namespace {

// Items hand out copies of their own strings, so shared data settles most comparisons at once.
bool sameText(const std::optional<QString>& a, const std::optional<QString>& b) {
    if (a.has_value() != b.has_value()) return false;
    if (!a) return true;
    if (a->size() == b->size() && a->constData() == b->constData()) return true;
    return *a == *b;
}

// Same object, told by its control block: a weak reference keeps that block, so no other item
// can take its place at the same address.
bool sameObject(const std::weak_ptr<QVLumerixItem>& seen, const QVLumerixItemRef& item) {
    return !seen.owner_before(item) && !item.owner_before(seen);
}

}  // namespace

void StatusMenuModel::reset() {
    menuList_.clear();
    receivers_.clear();
    fixedItemsStale_ = true;
    shownRows_.clear();
    receiverTitles_.clear();
    receiverItems_.clear();
}

void StatusMenuModel::createMenu() {
    menu_ = std::make_shared<Menu>(QStringLiteral("Lumerix"));
    addFixedItems();
}

std::vector<MenuItemRef> StatusMenuModel::makeFixedMenuItems() const {
    std::vector<MenuItemRef> items;
    if (const auto& table = references_.table()) {
        items.reserve(static_cast<size_t>(table->size()) + 3);
        for (const QVariant& entry : *table) {
            const QVariant device = entry.toMap().value(kKeyDevice);
            std::optional<QString> title;
            if (device.isValid()) title = device.toString();
            items.push_back(MenuItem::initWithTitle(std::move(title), MenuAction::DeviceConnect, QString()));
        }
    }
    items.push_back(MenuItem::separatorItem());
    items.push_back(MenuItem::initWithTitle(QCoreApplication::translate("AppDelegate", "About"),
                                            MenuAction::ShowAbout, QString()));
    items.push_back(MenuItem::initWithTitle(QCoreApplication::translate("AppDelegate", "Exit"),
                                            MenuAction::QuitApp, QString()));
    return items;
}

void StatusMenuModel::addFixedItems() {
    if (!menu_) return;
    fixedItems_ = makeFixedMenuItems();
    fixedReferenceCount_ = fixedItems_.size() - 3;
    fixedItemsStale_ = false;
    for (size_t i = 0; i < fixedItems_.size(); ++i) {
        menu_->addItem(fixedItems_[i]);
        if (i < fixedReferenceCount_) menuList_.push_back(fixedItems_[i]);
    }
}

void StatusMenuModel::setReceivers(const std::vector<QVLumerixItemRef>& listed) {
    // A dictionary depends on its item's four values only: a row showing the same item at the same
    // details revision as last time is left as it is, and an item that moved rows shares the
    // dictionary built for it before.
    const size_t n = listed.size();
    if (dictionaryCache_.size() > 2 * n + 16) dictionaryCache_.clear();
    receivers_.resize(static_cast<qsizetype>(n));
    receiverTitles_.resize(n);
    shownRows_.resize(n);
    for (size_t i = 0; i < n; ++i) {
        const QVLumerixItemRef& item = listed[i];
        const uint64_t revision = item->detailsRevision();
        ShownRow& row = shownRows_[i];
        if (sameObject(row.item, item) && row.revision == revision) continue;

        CachedDictionary& cached = dictionaryCache_[item.get()];
        if (!sameObject(cached.item, item) || cached.revision != revision) {
            ReceiverRow receiver = ReceiverRow::fromItem(*item);
            ReceiverDictionary dict = receiver.dictionary();
            cached = {item, revision, std::move(receiver.name), std::move(dict)};
        }
        receivers_[static_cast<qsizetype>(i)] = cached.dict;
        // The "Device" value of the dictionary, without looking it up again.
        receiverTitles_[i] = cached.name;
        row = {item, revision};
    }
    update();
}

void StatusMenuModel::update() {
    // The menu shows the receivers that have a name at the rows of their list positions, the fixed
    // entries filling the rows between them in order, and receivers past the fixed entries last:
    // the same rows as inserting each named receiver at its list position into the fixed menu.
    const auto n = static_cast<size_t>(receivers_.size());
    receiverTitles_.resize(n);
    bool changed = fixedItemsStale_ || receiverItems_.size() != n;
    if (fixedItemsStale_ && menu_) {
        fixedItems_ = makeFixedMenuItems();
        fixedReferenceCount_ = fixedItems_.size() - 3;
        fixedItemsStale_ = false;
    }
    receiverItems_.resize(n);
    size_t named = 0;
    for (size_t i = 0; i < n; ++i) {
        const std::optional<QString>& title = receiverTitles_[i];
        MenuItemRef& entry = receiverItems_[i];
        // Past the row limit a named receiver is left out like an unnamed one.
        const bool shown = title && named < kMaxReceiverRows;
        if (shown) ++named;
        if (!shown) {
            changed = changed || entry != nullptr;
            entry.reset();
        } else if (!entry || !sameText(entry->title(), title)) {
            entry = MenuItem::initWithTitle(*title, MenuAction::DeviceConnect, QString());
            changed = true;
        }
    }

    if (changed) {
        // Reference entries first, then the named receivers in list order: DeviceConnectAction
        // indexes the receivers with positions in this list.
        menuList_.clear();
        const size_t references = menu_ ? fixedReferenceCount_ : 0;
        menuList_.insert(menuList_.end(), fixedItems_.begin(),
                         fixedItems_.begin() + static_cast<std::ptrdiff_t>(references));
        for (const MenuItemRef& entry : receiverItems_) {
            if (entry) menuList_.push_back(entry);
        }
        if (menu_) layOutMenuRows();
    }
}

void StatusMenuModel::layOutMenuRows() {
    const size_t n = receiverItems_.size();
    rows_.clear();
    size_t fixed = 0;
    size_t next = 0;
    for (;;) {
        while (next < n && !receiverItems_[next]) ++next;
        const bool receiverRow = next < n && next == rows_.size();
        if (!receiverRow && fixed < fixedItems_.size()) {
            rows_.push_back(fixedItems_[fixed++]);
        } else if (next < n) {
            rows_.push_back(receiverItems_[next++]);
        } else {
            break;
        }
    }
    menu_->setItems(rows_);
}

const ReceiverDictionary* StatusMenuModel::receiverFor(const MenuItemRef& entry, size_t* at) const {
    size_t position = 0;
    for (size_t i = 0; i < menuList_.size(); ++i) {
        if (menuList_[i] == entry) {
            position = i;
            break;
        }
    }
    // Deliberate, as designed: the position in the menu list, where reference-table entries come
    // first, indexes the receiver list, which has no reference entries. With references listed,
    // an entry therefore connects to a receiver further down; past the end nothing happens.
    if (at) *at = position;
    if (position >= static_cast<size_t>(receivers_.size())) return nullptr;
    return &receivers_[static_cast<qsizetype>(position)];
}

}  // namespace lumerix
