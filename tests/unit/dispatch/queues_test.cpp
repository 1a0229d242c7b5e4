#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "dispatch/ManualQueue.h"
#include "dispatch/ThreadQueue.h"

namespace lumerix {
namespace {

TEST(ManualQueue, RunsTasksOfAllQueuesInDueOrderTiesInPostingOrder) {
    VirtualTime time;
    ManualQueue a(time, "a");
    ManualQueue b(time, "b");
    std::vector<std::string> ran;
    auto note = [&](std::string what, DispatchQueue* q) {
        return [&, what, q] {
            EXPECT_EQ(DispatchQueue::current(), q);
            ran.push_back(what + "@" + std::to_string(static_cast<int>(time.monotonicMs())));
        };
    };
    a.after(300, note("a300", &a));
    b.after(100, note("b100", &b));
    a.async(note("a0", &a));
    b.after(300, note("b300", &b));
    a.after(100, [&] {
        ran.push_back("a100");
        a.after(50, note("a150", &a));  // posted by a task, due inside the same advance
    });
    time.advance(299);
    EXPECT_EQ(ran, (std::vector<std::string>{"a0@0", "b100@100", "a100", "a150@150"}));
    EXPECT_EQ(time.monotonicMs(), 299);
    time.advance(1);
    EXPECT_EQ(ran.size(), 6u);
    EXPECT_EQ(ran[4], "a300@300");
    EXPECT_EQ(ran[5], "b300@300");
    EXPECT_EQ(DispatchQueue::current(), nullptr);
}

TEST(ManualQueue, CancelledTaskThatIsAlreadyDueDoesNotRun) {
    VirtualTime time;
    ManualQueue q(time);
    bool ran = false;
    TaskHandle later;
    q.after(100, [&] { later->cancel(); });  // same due time, posted first: runs first
    later = q.after(100, [&] { ran = true; });
    time.advance(1000);
    EXPECT_FALSE(ran);

    bool other = false;
    later = q.after(0, [&] { ran = true; });
    q.after(0, [&] { other = true; });
    later->cancel();
    q.runUntilIdle();
    EXPECT_FALSE(ran);
    EXPECT_TRUE(other) << "only the cancelled one is skipped";
}

TEST(ManualQueue, DestroyedQueueForgetsItsTasks) {
    VirtualTime time;
    bool ran = false;
    {
        ManualQueue gone(time);
        gone.after(10, [&] { ran = true; });
    }
    ManualQueue kept(time);
    int keptRuns = 0;
    kept.after(20, [&] { ++keptRuns; });
    time.advance(100);
    EXPECT_FALSE(ran);
    EXPECT_EQ(keptRuns, 1);
}

TEST(ManualQueue, ManyCancelledTasksAreSweptWithoutLosingLiveOnes) {
    VirtualTime time;
    ManualQueue q(time);
    std::vector<int> ran;
    for (int i = 0; i < 5000; ++i) {
        auto h = q.after(1000 + i, [&ran, i] { ran.push_back(i); });
        if (i % 1000 != 7) h->cancel();
    }
    EXPECT_LT(time.pendingCount(), 2000u) << "cancelled entries pile up";
    time.advance(10000);
    EXPECT_EQ(ran, (std::vector<int>{7, 1007, 2007, 3007, 4007}));
}

// ThreadQueue: real thread, waits through futures only.

TEST(ThreadQueue, AsyncRunsInOrderOnTheQueueThread) {
    ThreadQueue q("t");
    std::vector<int> order;
    std::thread::id where;
    for (int i = 0; i < 100; ++i) q.async([&, i] { order.push_back(i); });
    q.sync([&] {
        where = std::this_thread::get_id();
        EXPECT_TRUE(q.isCurrent());
    });
    EXPECT_FALSE(q.isCurrent());
    EXPECT_NE(where, std::this_thread::get_id());
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
}

TEST(ThreadQueue, DelayedTasksRunInDueOrderAndCancelledOnesNever) {
    ThreadQueue q("t");
    std::vector<std::string> order;  // touched only on the queue
    std::promise<void> done;
    q.after(40, [&] {
        order.push_back("40");
        done.set_value();
    });
    q.after(10, [&] { order.push_back("10"); });
    auto cancelled = q.after(20, [&] { order.push_back("cancelled"); });
    q.async([&] { order.push_back("0"); });
    cancelled->cancel();
    ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    q.sync([] {});
    EXPECT_EQ(order, (std::vector<std::string>{"0", "10", "40"}));
}

TEST(ThreadQueue, StaysResponsiveWhileManyCancelledTimersPileUp) {
    ThreadQueue q("t");
    for (int i = 0; i < 20000; ++i) q.after(60000, [] {})->cancel();
    int runs = 0;
    q.sync([&] { ++runs; });
    EXPECT_EQ(runs, 1);
}

TEST(ThreadQueue, DestructionDropsPendingTasksAndReleasesThem) {
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> watch = token;
    {
        ThreadQueue q("t");
        q.after(60000, [token = std::move(token)] { ++*token; });
    }
    EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace lumerix
