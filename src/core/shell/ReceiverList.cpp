#include "shell/ReceiverList.h"

#include <optional>

#include "shell/ReceiverOrder.h"

namespace lumerix {

ReceiverList::ReceiverList(DispatchQueue* queue, std::function<void(bool)> refreshed)
    : refreshed_(std::move(refreshed)) {
    if (queue) throttle_ = std::make_unique<Throttle>(*queue, kRefreshIntervalMs, [this] { refresh(); });
}

void ReceiverList::add(const QVLumerixItemRef& item) {
    if (!item) return;
    // Entries with an identifier are unique in the list: the very object is already there, or
    // an older object for the same receiver is replaced in place, or the item goes last.
    const std::optional<QString> uuid = item->shortenedUUID();
    const bool identified = uuid && !uuid->isEmpty();
    if (!identified || !listedCount_.contains(item.get())) {
        bool replaced = false;
        if (identified) {
            if (const auto it = listedByIdentifier_.constFind(*uuid); it != listedByIdentifier_.constEnd()) {
                const QVLumerixItem* old = it.value();
                for (QVLumerixItemRef& entry : items_) {
                    if (entry.get() != old) continue;
                    listedCount_.erase(old);
                    entry = item;
                    replaced = true;
                    break;
                }
            }
            listedByIdentifier_.insert(*uuid, item.get());
        }
        if (!replaced) items_.push_back(item);
        ++listedCount_[item.get()];
    }
    orderStale_ = true;
    changed();
}

void ReceiverList::remove(const QVLumerixItemRef& item) {
    if (!item || !listedCount_.contains(item.get())) return;
    std::erase(items_, item);
    listedCount_.erase(item.get());
    unlist(item);
    changed();
}

std::vector<QVLumerixItemRef> ReceiverList::removeAged(double nowMs) {
    std::vector<QVLumerixItemRef> aged;
    std::erase_if(items_, [&](const QVLumerixItemRef& item) {
        const auto alive = item->aliveDuration();
        if (!alive || nowMs - *alive <= kReceiverTimeoutMs) return false;
        aged.push_back(item);
        return true;
    });
    for (const QVLumerixItemRef& item : aged) unlist(item);
    if (!aged.empty()) takeRowsChanged();
    return aged;
}

void ReceiverList::clear() {
    items_.clear();
    listedCount_.clear();
    listedByIdentifier_.clear();
    told_.clear();
}

void ReceiverList::unlist(const QVLumerixItemRef& item) {
    const auto count = listedCount_.find(item.get());
    if (count != listedCount_.end() && --count->second <= 0) listedCount_.erase(count);
    if (const auto uuid = item->shortenedUUID()) {
        const auto it = listedByIdentifier_.constFind(*uuid);
        if (it != listedByIdentifier_.constEnd() && it.value() == item.get()) listedByIdentifier_.erase(it);
    }
}

void ReceiverList::changed() {
    if (throttle_) {
        throttle_->trigger();
    } else {
        refresh();
    }
}

void ReceiverList::refresh() {
    if (orderStale_) {
        items_ = reorderBySignalStrength(std::move(items_),
                                         [](const QVLumerixItemRef& e) { return e->aveRssi(); });
        orderStale_ = false;
    }
    const bool rowsChanged = takeRowsChanged();
    if (refreshed_) refreshed_(rowsChanged);
}

bool ReceiverList::takeRowsChanged() {
    bool changed = told_.size() != items_.size();
    told_.resize(items_.size());
    for (size_t i = 0; i < items_.size(); ++i) {
        const QVLumerixItemRef& item = items_[i];
        ToldRow& row = told_[i];
        const uint64_t revision = item->detailsRevision();
        // Same object, told by its control block.
        if (!row.item.owner_before(item) && !item.owner_before(row.item) && row.revision == revision)
            continue;
        row = {item, revision};
        changed = true;
    }
    return changed;
}

}  // namespace lumerix
