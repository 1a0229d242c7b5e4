// The intake loop arms a single timer for the queue's next deadline, so the queue itself must keep
// the run order: tasks due together run in the order they were queued, cancelled ones not at all,
// and later ones stay for the next deadline.
#include <gtest/gtest.h>

#include <string>

#include "platform/bluez/IntakeQueue.h"

namespace lumerix {
namespace {

TEST(IntakeQueue, DueTasksRunInQueueOrderAndTheNextDeadlineIsTheEarliestLeft) {
    IntakeQueue queue;
    EXPECT_FALSE(queue.nextDueMs().has_value());

    std::string ran;
    const double start = queue.clock().monotonicMs();
    queue.after(60000, [&] { ran += 'L'; });
    ASSERT_TRUE(queue.nextDueMs().has_value());
    EXPECT_GE(*queue.nextDueMs(), start + 60000);

    queue.async([&] { ran += 'a'; });
    TaskHandle cancelled = queue.after(0, [&] { ran += 'x'; });
    queue.after(0, [&] { ran += 'b'; });
    queue.async([&] { ran += 'c'; });
    cancelled->cancel();
    EXPECT_LE(*queue.nextDueMs(), queue.clock().monotonicMs());

    queue.runDue();
    EXPECT_EQ(ran, "abc");
    ASSERT_TRUE(queue.nextDueMs().has_value());
    EXPECT_GE(*queue.nextDueMs(), start + 60000);  // the later task waits for its own deadline
    queue.runDue();
    EXPECT_EQ(ran, "abc");
}

}  // namespace
}  // namespace lumerix
