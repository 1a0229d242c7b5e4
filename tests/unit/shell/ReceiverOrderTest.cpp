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
        {"equal keeps order", {-50, -50}, {0, 1}},
        {"equal to the front jumps ahead of it", {-50, -60, -50}, {2, 0, 1}},
        {"not a sort: lands ahead of a stronger one", {-40, -45, -50, -60, -48}, {0, 4, 1, 2, 3}},
        {"NaN never beats and is never beaten", {-50, nan, -40}, {2, 0, 1}},
        {"empty", {}, {}},
    };
    for (const Case& c : cases) {
        std::vector<Entry> list;
        for (size_t i = 0; i < c.input.size(); ++i) list.push_back({c.input[i], static_cast<int>(i)});
        const auto ordered = reorderBySignalStrength(list, [](const Entry& e) { return e.rssi; });
        std::vector<int> tags;
        for (const Entry& e : ordered) tags.push_back(e.tag);
        EXPECT_EQ(tags, c.expectedTags) << c.name;
    }
}

}  // namespace
}  // namespace lumerix
