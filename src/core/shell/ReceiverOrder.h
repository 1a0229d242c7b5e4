#pragma once
// The receiver list's order: roughly strongest first, built by insertion. Each entry, taken in
// list order, goes in front of the first entry it is strictly stronger than when that entry is
// one of the first two, otherwise one slot before it (ahead of an entry at least as strong); an
// entry stronger than none goes last. Deliberately not a sort: the menu order users see depends
// on this exact rule.
#include <cstddef>
#include <vector>

namespace lumerix {

// rssiOf is asked once per entry.
template <class T, class RssiOf>
std::vector<T> reorderBySignalStrength(const std::vector<T>& list, RssiOf rssiOf) {
    std::vector<double> keys;  // parallel to ordered
    std::vector<T> ordered;
    keys.reserve(list.size());
    ordered.reserve(list.size());
    for (const T& entry : list) {
        const double rssi = rssiOf(entry);
        size_t j = 0;
        while (j < keys.size() && !(rssi > keys[j])) ++j;  // NaN never qualifies
        const size_t at = j == keys.size() ? j : (j < 2 ? 0 : j - 1);
        keys.insert(keys.begin() + static_cast<std::ptrdiff_t>(at), rssi);
        ordered.insert(ordered.begin() + static_cast<std::ptrdiff_t>(at), entry);
    }
    return ordered;
}

}  // namespace lumerix
