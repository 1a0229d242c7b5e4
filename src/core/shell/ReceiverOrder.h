#pragma once
// The receiver list's order: roughly strongest first, built by insertion. Each entry, taken in
// list order, goes in front of the first entry it is strictly stronger than when that entry is
// one of the first two, otherwise one slot before it (ahead of an entry at least as strong); an
// entry stronger than none goes last. Deliberately not a sort: the menu order users see depends
// on this exact rule.
#include <cstddef>
#include <vector>

#include "receiver/SignalStrength.h"

namespace lumerix {

// rssiOf is asked once per entry; entries are moved, not copied.
template <class T, class RssiOf>
std::vector<T> reorderBySignalStrength(std::vector<T> list, RssiOf rssiOf) {
    std::vector<double> keys;     // strengths in output order
    std::vector<size_t> indices;  // input positions in output order
    keys.reserve(list.size());
    indices.reserve(list.size());
    for (size_t i = 0; i < list.size(); ++i) {
        const double rssi = rssiOf(list[i]);
        size_t j = 0;
        while (j < keys.size() && !strongerThan(rssi, keys[j])) ++j;
        const size_t at = j == keys.size() ? j : (j < 2 ? 0 : j - 1);
        keys.insert(keys.begin() + static_cast<std::ptrdiff_t>(at), rssi);
        indices.insert(indices.begin() + static_cast<std::ptrdiff_t>(at), i);
    }
    std::vector<T> ordered;
    ordered.reserve(list.size());
    for (size_t i : indices) ordered.push_back(std::move(list[i]));
    return ordered;
}

}  // namespace lumerix
