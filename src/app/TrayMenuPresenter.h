#pragma once
// Keeps a tray menu in step with the shell's Menu while touching it as little as possible. The
// shell attaches its Menu again on every advertisement; the desktop should only see a change when
// a title, the order or a separator changed. The same Menu at the same revision costs nothing; an
// edited or different Menu is compared row by row and only differing rows reach the view (the
// item objects that a click resolves to are always those of the menu applied last).
#include <QString>
#include <vector>

#include "shell/Menu.h"

namespace lumerix {

// One visible row of the tray menu.
struct TrayEntry {
    bool separator = false;
    QString title;

    bool operator==(const TrayEntry&) const = default;
    static TrayEntry of(const MenuItem& item);
};

// The menu widget as the presenter edits it, row by row.
class TrayMenuView {
public:
    virtual ~TrayMenuView() = default;
    virtual void insertEntry(int index, const TrayEntry& entry) = 0;
    virtual void updateEntry(int index, const TrayEntry& entry) = 0;
    virtual void removeEntry(int index) = 0;
};

class TrayMenuPresenter {
public:
    explicit TrayMenuPresenter(TrayMenuView& view) : view_(view) {}

    // Shows the menu (null shows an empty one). Returns true when the view was edited.
    bool apply(const MenuRef& menu);
    // The item object behind a row of the menu last applied; null when out of range.
    MenuItemRef itemAt(int row) const;
    const std::vector<TrayEntry>& shown() const { return shown_; }

private:
    TrayMenuView& view_;
    std::vector<TrayEntry> shown_;
    std::vector<MenuItemRef> items_;
    MenuRef menu_;  // applied last, held so that its address is not reused
    uint64_t revision_ = 0;
};

}  // namespace lumerix
