#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "dispatch/QVQueue.h"

namespace lumerix {
namespace {

using Values = std::vector<double>;

// Pushes 1..n, each push reporting no drop.
void fill(QVQueue<double>& q, int n) {
    for (int i = 1; i <= n; ++i) EXPECT_EQ(q.push(i), std::nullopt);
}

TEST(QVQueue, DropRules) {
    QVQueue<double> q(6);
    fill(q, 6);
    EXPECT_EQ(q.push(7), 1.0) << "push over capacity returns the head";
    EXPECT_EQ(q.dump(), (Values{2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(q.pushFromHead(0), 7.0) << "pushFromHead on a full queue returns the tail";
    EXPECT_EQ(q.dump(), (Values{0, 2, 3, 4, 5, 6}));

    QVQueue<double> roomy(6);
    fill(roomy, 2);
    EXPECT_EQ(roomy.pushFromHead(0), std::nullopt);
    EXPECT_EQ(roomy.dump(), (Values{0, 1, 2}));
    EXPECT_EQ(roomy.componentsJoinedByString(QStringLiteral(",")), QStringLiteral("0,1,2"));
    EXPECT_EQ(roomy.pop(9.0), 9.0);  // absent: unchanged
    EXPECT_EQ(roomy.pop(1.0), 1.0);
    EXPECT_EQ(roomy.pop(), 0.0);
    EXPECT_EQ(roomy.pop(), 2.0);
    EXPECT_THROW(roomy.pop(), std::out_of_range);
    EXPECT_EQ(QVQueue<double>().capacity(), 10u);
}

}  // namespace
}  // namespace lumerix
