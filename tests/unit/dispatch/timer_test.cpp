#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "dispatch/DispatchTimer.h"
#include "dispatch/ManualQueue.h"

namespace lumerix {
namespace {

TEST(DispatchTimer, FirstFiringOneIntervalAfterCreationThenFixedRepeat) {
    VirtualTime time;
    ManualQueue q(time);
    time.advance(1234);
    std::vector<double> firings;
    auto timer = GCDTimer::dispatchTimerForInterval(3, &q, [&] {
        EXPECT_TRUE(q.isCurrent());
        firings.push_back(time.monotonicMs());
    });
    ASSERT_TRUE(timer);
    time.advance(2999);
    EXPECT_TRUE(firings.empty()) << "no firing at creation";
    time.advance(9001);
    EXPECT_EQ(firings, (std::vector<double>{4234, 7234, 10234, 13234}));
}

TEST(DispatchTimer, CancelStopsFurtherFiringsIncludingOneAlreadyDue) {
    VirtualTime time;
    ManualQueue q(time);
    int fired = 0;
    DispatchTimerRef timer;
    // Posted before the timer and due at the same moment as its first firing, so it runs first.
    q.after(1000, [&] { GCDTimer::cancelDispatchedTimer(timer); });
    timer = CreateDispatchTimer(
        &q, [&] { ++fired; }, 1.0);
    time.advance(10000);
    EXPECT_EQ(fired, 0);
    EXPECT_TRUE(timer->isCancelled());

    // A timer that cancels itself from its own block fires exactly once.
    DispatchTimerRef self = CreateDispatchTimer(
        &q,
        [&] {
            ++fired;
            GCDTimer::cancelDispatchedTimer(self);
        },
        0.5);
    time.advance(10000);
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(time.pendingCount(), 0u);
}

TEST(DispatchTimer, RefusesWhatItCannotRun) {
    VirtualTime time;
    ManualQueue q(time);
    auto block = [] {};
    for (double seconds : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN(), HUGE_VAL, 1e12})
        EXPECT_FALSE(CreateDispatchTimer(&q, block, seconds)) << seconds;
    EXPECT_FALSE(CreateDispatchTimer(nullptr, block, 1.0));
    EXPECT_FALSE(CreateDispatchTimer(&q, nullptr, 1.0));
    EXPECT_EQ(time.pendingCount(), 0u);
}

}  // namespace
}  // namespace lumerix
