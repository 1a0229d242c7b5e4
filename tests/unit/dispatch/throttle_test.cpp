#include <gtest/gtest.h>

#include <vector>

#include "dispatch/ManualQueue.h"
#include "dispatch/Throttle.h"

namespace lumerix {
namespace {

TEST(Throttle, AtMostOncePerInterval) {
    struct Case {
        const char* what;
        std::vector<double> triggersAt;  // ms, ascending
        std::vector<double> runsAt;
    };
    const Case cases[] = {
        {"first trigger runs at once", {0}, {0}},
        {"a burst folds into one run when the interval ends", {0, 10, 500, 999}, {0, 1000}},
        {"a trigger after a quiet interval runs at once", {0, 1000, 2500}, {0, 1000, 2500}},
        {"a steady stream runs once a second",
         {0, 300, 600, 900, 1200, 1500, 1800, 2100},
         {0, 1000, 2000, 3000}},
    };
    for (const Case& c : cases) {
        VirtualTime time;
        ManualQueue queue(time);
        std::vector<double> runs;
        Throttle throttle(queue, 1000, [&] { runs.push_back(time.monotonicMs()); });
        for (double at : c.triggersAt) {
            time.advance(at - time.monotonicMs());
            throttle.trigger();
        }
        time.advance(5000);
        EXPECT_EQ(runs, c.runsAt) << c.what;
    }
}

}  // namespace
}  // namespace lumerix
