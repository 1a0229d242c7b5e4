#pragma once
// The one "strongest first" rule for receivers, shared by the handler's closest receiver, the
// tray's list (and the tooltip and D-Bus service that show it), the command line and the
// launcher search. A higher reading is stronger; 0 is a reading like any other, so it comes before
// every negative one. A missing reading (NaN) never beats another and is never beaten.
#include <algorithm>
#include <cmath>
#include <iterator>

namespace lumerix {

inline bool strongerThan(double a, double b) { return a > b; }

// Stable: equally strong entries keep their order. Entries without a reading go last, in their
// order (a sort needs them placed somewhere, and "never beats" puts them after the others).
template <class It, class RssiOf>
void sortStrongestFirst(It first, It last, RssiOf rssiOf) {
    const It unread =
        std::stable_partition(first, last, [&rssiOf](const auto& e) { return !std::isnan(rssiOf(e)); });
    std::stable_sort(first, unread,
                     [&rssiOf](const auto& a, const auto& b) { return strongerThan(rssiOf(a), rssiOf(b)); });
}

template <class List, class RssiOf>
void sortStrongestFirst(List& list, RssiOf rssiOf) {
    sortStrongestFirst(std::begin(list), std::end(list), rssiOf);
}

}  // namespace lumerix
