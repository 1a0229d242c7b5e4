#pragma once
// The receivers heard lately, in the order the tray shows them. A discovery is merged at once (an
// identified receiver appears once, a newer object taking its older one's place); re-ordering and
// telling the views happen at most once per refresh interval, so a flood of advertisements costs
// one refresh. Aging takes out receivers not heard for a while. Runs on the main queue.
#include <QHash>
#include <QString>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "dispatch/DispatchQueue.h"
#include "dispatch/Throttle.h"
#include "receiver/QVLumerixItem.h"

namespace lumerix {

class ReceiverList {
public:
    // A receiver not heard for longer than this leaves the list.
    static constexpr double kReceiverTimeoutMs = 20000.0;
    static constexpr double kRefreshIntervalMs = 250.0;

    // refreshed: told after each refresh whether the rows changed since the last one: a receiver
    // came or went, the order changed, or a receiver's name, address or code changed. A reading
    // that leaves the order as it was is no change (views showing the signal redraw anyway;
    // listeners outside need not hear of every advertisement). queue: where refreshes are
    // throttled (null: each change refreshes at once).
    ReceiverList(DispatchQueue* queue, std::function<void(bool rowsChanged)> refreshed);
    ReceiverList(const ReceiverList&) = delete;
    ReceiverList& operator=(const ReceiverList&) = delete;

    void add(const QVLumerixItemRef& item);
    void remove(const QVLumerixItemRef& item);
    // Takes out the receivers not heard within kReceiverTimeoutMs of nowMs and returns them; the
    // order of the others is kept and nobody is told (the caller tells of the removal).
    std::vector<QVLumerixItemRef> removeAged(double nowMs);
    void clear();

    const std::vector<QVLumerixItemRef>& items() const { return items_; }

private:
    void changed();
    void refresh();
    void unlist(const QVLumerixItemRef& item);
    // Whether items_ differs from what was told last, which it then becomes.
    bool takeRowsChanged();

    std::function<void(bool)> refreshed_;
    std::vector<QVLumerixItemRef> items_;
    // What items_ held when last told: each item (weakly, so that no later item at the same
    // address passes for it) and its details revision.
    struct ToldRow {
        std::weak_ptr<QVLumerixItem> item;
        uint64_t revision = 0;
    };
    std::vector<ToldRow> told_;
    // What items_ holds, so that a discovery is merged without walking it: how often each item is
    // listed, and the item listed under each identifier.
    std::unordered_map<const QVLumerixItem*, int> listedCount_;
    QHash<QString, const QVLumerixItem*> listedByIdentifier_;
    bool orderStale_ = false;
    std::unique_ptr<Throttle> throttle_;
};

}  // namespace lumerix
