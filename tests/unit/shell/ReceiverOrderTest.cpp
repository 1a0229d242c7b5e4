#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "shell/ReceiverOrder.h"

namespace lumerix {
namespace {

// Entries are (rssi, tag) so equal strengths can be told apart.
struct Entry {
    double rssi;
    int tag;
};

// Tagged with their input positions.
std::vector<Entry> entries(const std::vector<double>& rssi) {
    std::vector<Entry> list;
    list.reserve(rssi.size());
    for (size_t i = 0; i < rssi.size(); ++i) list.push_back({rssi[i], static_cast<int>(i)});
    return list;
}

std::vector<int> tagsOf(const std::vector<Entry>& list) {
    std::vector<int> tags;
    tags.reserve(list.size());
    for (const Entry& e : list) tags.push_back(e.tag);
    return tags;
}

TEST(ReceiverOrder, InsertionRuleExamples) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char* name;
        std::vector<double> input;
        std::vector<int> expectedTags;  // input positions, in output order
    };
    const Case cases[] = {
        {"weaker entries append", {-50, -60, -70}, {0, 1, 2}},
        {"jump to front when beating position 1", {-50, -60, -70, -55}, {3, 0, 1, 2}},
        {"one slot before the first weaker from position 2", {-40, -50, -60, -55}, {0, 3, 1, 2}},
        {"stronger second goes first", {-80, -70}, {1, 0}},
        {"a reading of 0 is the strongest, as in the sort", {-30, 0}, {1, 0}},
        {"equal keeps order", {-50, -50}, {0, 1}},
        {"equal to the front jumps ahead of it", {-50, -60, -50}, {2, 0, 1}},
        {"not a sort: lands ahead of a stronger one", {-40, -45, -50, -60, -48}, {0, 4, 1, 2, 3}},
        {"NaN never beats and is never beaten", {-50, nan, -40}, {2, 0, 1}},
        {"empty", {}, {}},
    };
    for (const Case& c : cases) {
        std::vector<Entry> list = entries(c.input);
        const auto ordered = reorderBySignalStrength(list, [](const Entry& e) { return e.rssi; });
        EXPECT_EQ(tagsOf(ordered), c.expectedTags) << c.name;
    }
}

// Every list that shows receivers strongest first (command line, search) sorts with this rule.
TEST(ReceiverOrder, StrongestFirstSort) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char* name;
        std::vector<double> input;
        std::vector<int> expectedTags;
    };
    const Case cases[] = {
        {"higher reading first", {-70, -40, -55}, {1, 2, 0}},
        {"a reading of 0 is the strongest, as for the closest receiver", {-40, 0, -90}, {1, 0, 2}},
        {"equal readings keep their order", {-50, -40, -50, -40}, {1, 3, 0, 2}},
        {"no reading goes last, in order", {nan, -80, nan, -30}, {3, 1, 0, 2}},
        {"only missing readings", {nan, nan}, {0, 1}},
        {"empty", {}, {}},
    };
    for (const Case& c : cases) {
        std::vector<Entry> list = entries(c.input);
        sortStrongestFirst(list, [](const Entry& e) { return e.rssi; });
        EXPECT_EQ(tagsOf(list), c.expectedTags) << c.name;
    }
}

}  // namespace
}  // namespace lumerix
