#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "dispatch/QVQueue.h"

namespace lumerix {
namespace {

using Ints = std::vector<double>;

// A queue of the given capacity holding 1..n, each push reporting no drop.
std::unique_ptr<QVQueue<double>> filled(uint64_t capacity, int n) {
    auto q = std::make_unique<QVQueue<double>>(capacity);
    for (int i = 1; i <= n; ++i) EXPECT_EQ(q->push(i), std::nullopt);
    return q;
}

TEST(QVQueue, PushDropsTheOldestOnlyWhenOverfull) {
    auto q = filled(6, 6);
    EXPECT_EQ(q->push(7), 1.0);
    EXPECT_EQ(q->dump(), (Ints{2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(QVQueue<double>().capacity(), 10u);
}

TEST(QVQueue, PushFromHeadOnFullDropsTheTail) {
    auto q = filled(6, 6);
    EXPECT_EQ(q->pushFromHead(0), 6.0);
    EXPECT_EQ(q->dump(), (Ints{0, 1, 2, 3, 4, 5}));
    auto roomy = filled(6, 2);
    EXPECT_EQ(roomy->pushFromHead(0), std::nullopt);
    EXPECT_EQ(roomy->dump(), (Ints{0, 1, 2}));
}

TEST(QVQueue, Pop) {
    auto q = filled(6, 3);
    EXPECT_EQ(q->pop(9.0), 9.0);  // absent: unchanged
    EXPECT_EQ(q->dump(), (Ints{1, 2, 3}));
    q->push(2);
    EXPECT_EQ(q->pop(2.0), 2.0);  // only the first equal element goes
    EXPECT_EQ(q->dump(), (Ints{1, 3, 2}));
    EXPECT_EQ(q->pop(), 1.0);
    EXPECT_EQ(q->pop(), 3.0);
    EXPECT_EQ(q->pop(), 2.0);
    EXPECT_THROW(q->pop(), std::out_of_range);
    EXPECT_EQ(q->count(), 0u);
}

TEST(QVQueue, CapacityChangeTakesEffectAtNextInsertionOrReset) {
    auto q = filled(6, 6);
    q->setCapacity(3);
    EXPECT_EQ(q->count(), 6u) << "no trim by itself";
    EXPECT_EQ(q->push(7), 1.0);  // one insertion drops one element
    EXPECT_EQ(q->count(), 6u);
    q->reset();
    EXPECT_EQ(q->count(), 0u);
    EXPECT_EQ(q->capacity(), 3u);
    for (int i = 1; i <= 4; ++i) q->push(i);
    EXPECT_EQ(q->dump(), (Ints{2, 3, 4}));
}

TEST(QVQueue, Join) {
    EXPECT_EQ(QVQueue<double>(6).componentsJoinedByString(QStringLiteral(",")), QString());
    QVQueue<QString> names(3);
    names.push(QStringLiteral("a"));
    names.push(QStringLiteral("b"));
    EXPECT_EQ(names.componentsJoinedByString(QStringLiteral(", ")), QStringLiteral("a, b"));
    auto q = filled(6, 2);
    q->push(-70.5);
    EXPECT_EQ(q->componentsJoinedByString(QStringLiteral(",")), QStringLiteral("1,2,-70.5"));
}

}  // namespace
}  // namespace lumerix
