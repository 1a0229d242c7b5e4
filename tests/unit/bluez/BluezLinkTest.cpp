// The hand-over between the intake thread and the rest: callbacks leave as one task per drain,
// in order, and stop once the central closes; commands posted before teardown still reach the
// intake thread, later ones do not.
#include <gtest/gtest.h>
#include <poll.h>

#include "dispatch/ManualQueue.h"
#include "platform/bluez/BluezLink.h"

namespace lumerix {
namespace {

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

TEST(BluezLink, ADrainsCallbacksLeaveAsOneTaskInOrderUntilTheCentralCloses) {
    VirtualTime time;
    ManualQueue queue(time, "scan");
    auto link = std::make_shared<BluezLink>(&queue);
    std::vector<int> ran;
    std::vector<std::function<void()>> batch;
    for (int i = 0; i < 100; ++i) batch.push_back([&ran, i] { ran.push_back(i); });
    link->deliver(std::move(batch));
    EXPECT_EQ(time.pendingCount(), 1u);
    time.runUntilIdle();
    ASSERT_EQ(ran.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(ran[static_cast<size_t>(i)], i);

    // Closing stops a batch already queued, even halfway.
    ran.clear();
    link->deliver({[&] { ran.push_back(1); }, [&] { link->closing.store(true); }, [&] { ran.push_back(3); }});
    time.runUntilIdle();
    EXPECT_EQ(ran, std::vector<int>{1});
}

TEST(BluezLink, CommandsWakeTheIntakeOnceAndSurviveDetachButLaterOnesAreDropped) {
    VirtualTime time;
    ManualQueue queue(time, "scan");
    auto link = std::make_shared<BluezLink>(&queue);
    EXPECT_FALSE(readable(link->wakeFd()));
    link->post([](BluezEngine&) {});
    link->post([](BluezEngine&) {});
    EXPECT_TRUE(readable(link->wakeFd()));
    link->detach();
    link->post([](BluezEngine&) {});
    link->deliver({[] {}});
    EXPECT_EQ(time.pendingCount(), 0u);

    auto commands = link->takeCommands();
    EXPECT_FALSE(readable(link->wakeFd()));
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_TRUE(link->takeCommands().empty());
}

}  // namespace
}  // namespace lumerix
