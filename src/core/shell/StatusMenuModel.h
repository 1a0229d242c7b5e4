#pragma once
// The status menu: the saved receivers' entries, a separator, About and Exit, with each named
// receiver heard lately at its list position. The menu is patched, not rebuilt: the fixed entries
// and each receiver's entry keep their objects while their titles stay the same, so an open menu
// is not disturbed by a refresh that changes nothing in it. Runs on the main queue.
#include <QList>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "receiver/QVLumerixItem.h"
#include "sender/ConnectionInfo.h"
#include "shell/ReferenceTableStore.h"
#include "shell/ShellPorts.h"

namespace lumerix {

class StatusMenuModel {
public:
    // The menu lists at most this many receivers, the strongest; the others stay in the list
    // (tooltip, D-Bus) but a flood of advertisers cannot make the menu unusable.
    static constexpr size_t kMaxReceiverRows = 20;

    // references must outlive the model.
    explicit StatusMenuModel(const ReferenceTableStore& references) : references_(references) {}
    StatusMenuModel(const StatusMenuModel&) = delete;
    StatusMenuModel& operator=(const StatusMenuModel&) = delete;

    // Forgets every row (a fresh launch); the menu itself stays.
    void reset();
    // Makes the menu with its fixed entries.
    void createMenu();
    void addFixedItems();
    // The saved receivers changed: the fixed entries are made again at the next update.
    void referencesChanged() { fixedItemsStale_ = true; }
    // Takes the listed receivers' dictionaries and titles, then patches the menu.
    void setReceivers(const std::vector<QVLumerixItemRef>& listed);
    // Patches the menu to the receivers taken last.
    void update();
    // The receiver a receiver entry connects to, by the design's index rule (none: past the end);
    // at: the entry's position in menuList().
    const ReceiverDictionary* receiverFor(const MenuItemRef& entry, size_t* at = nullptr) const;

    const MenuRef& menu() const { return menu_; }
    const std::vector<MenuItemRef>& menuList() const { return menuList_; }
    const QList<ReceiverDictionary>& receivers() const { return receivers_; }

private:
    std::vector<MenuItemRef> makeFixedMenuItems() const;
    // The menu's rows: each receiver entry at its list position, the fixed entries around them.
    void layOutMenuRows();

    const ReferenceTableStore& references_;
    MenuRef menu_;
    // Reference entries first, then the shown receivers in list order.
    std::vector<MenuItemRef> menuList_;
    QList<ReceiverDictionary> receivers_;

    // Weak references tell an item from a later one at the same address.
    struct CachedDictionary {
        std::weak_ptr<QVLumerixItem> item;
        uint64_t revision = 0;  // the item's detailsRevision() the dictionary was built at
        std::optional<QString> name;
        ReceiverDictionary dict;
    };
    struct ShownRow {
        std::weak_ptr<QVLumerixItem> item;
        uint64_t revision = 0;
    };
    // Keyed by item address.
    std::unordered_map<const QVLumerixItem*, CachedDictionary> dictionaryCache_;
    std::vector<MenuItemRef> fixedItems_;
    size_t fixedReferenceCount_ = 0;
    bool fixedItemsStale_ = true;                         // the reference table changed since
    std::vector<ShownRow> shownRows_;                     // what each receivers_ entry was built from
    std::vector<std::optional<QString>> receiverTitles_;  // per receivers_ entry
    std::vector<MenuItemRef> receiverItems_;              // per entry; null for an unnamed one
    std::vector<MenuItemRef> rows_;                       // scratch for the menu's new rows
};

}  // namespace lumerix
