// The handler's table stays bounded: devices the central forgot and items the shell aged out
// leave it with their decay timers, and a full table makes room by dropping its weakest item.
#include <gtest/gtest.h>

#include "handler_fixture.h"

namespace lumerix::test {
namespace {

const QByteArray kRoom = makeLumerixRecord(kSegmentSingle, {10, 0, 0, 7}, 12, 34, "Room");

enum class By { Central, Shell, ShellWithAnotherObject };

void forget(HandlerHarness& h, const QVLumerixItemRef& item, By by) {
    switch (by) {
        case By::Central:
            h.handler->centralManagerDidForgetPeripheral(item->peripheral());
            break;
        case By::Shell:
            h.handler->forgetItem(item);
            break;
        case By::ShellWithAnotherObject:
            h.handler->forgetItem(QVLumerixItem::initWithPeripheral(item->peripheral(), h.time));
            break;
    }
    h.run();
}

TEST(HandlerBounds, ForgottenItemsLeaveTheTableWithTheirDecayTimers) {
    const struct {
        const char* label;
        By by;
        bool dropped;
    } cases[] = {
        {"the central forgot the device", By::Central, true},
        {"the shell aged the item out", By::Shell, true},
        {"the shell aged out another object for the device", By::ShellWithAnotherObject, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        HandlerHarness h;
        h.advertise(HandlerHarness::deviceId(1), -50, kRoom);
        h.advertise(HandlerHarness::deviceId(2), -60, kRoom);
        const QVLumerixItemRef item = h.item(HandlerHarness::deviceId(1));
        ASSERT_TRUE(item && item->decayingGCDTimer());
        forget(h, item, c.by);
        EXPECT_EQ(h.handler->itemCount(), c.dropped ? 1u : 2u);
        EXPECT_EQ(item->decayingGCDTimer() == nullptr, c.dropped);
        const auto forgotten = h.delegate.events("forget");
        ASSERT_EQ(forgotten.size(), c.dropped ? 1u : 0u);
        if (!c.dropped) continue;
        EXPECT_EQ(forgotten[0].item, item);
        EXPECT_EQ(forgotten[0].queue, "main");
        // Heard again, the device gets a fresh item.
        h.advertise(HandlerHarness::deviceId(1), -50, kRoom);
        EXPECT_NE(h.item(HandlerHarness::deviceId(1)), item);
        EXPECT_EQ(h.handler->itemCount(), 2u);
    }
}

// A full table: device 0 the closest (-20 dBm), the others -40..-89, device 7 then the weakest.
void fill(HandlerHarness& h) {
    h.advertise(HandlerHarness::deviceId(0), -20, kRoom);
    for (int i = 1; i < static_cast<int>(QVLumerixHandler::kMaxItems); ++i)
        h.advertise(HandlerHarness::deviceId(i), -40 - i % 50, kRoom);
    h.advertise(HandlerHarness::deviceId(7), -99);
}

// Its weakest item makes room, never the closest receiver, however weak it has become.
TEST(HandlerBounds, AFullTableDropsItsWeakestItemButNeverTheClosest) {
    const int cap = static_cast<int>(QVLumerixHandler::kMaxItems);
    for (const bool closestWeakest : {false, true}) {
        SCOPED_TRACE(closestWeakest);
        HandlerHarness h;
        fill(h);
        if (closestWeakest) h.advertise(HandlerHarness::deviceId(0), -100);  // now weaker than every other
        ASSERT_EQ(h.handler->closestPeer(), h.item(HandlerHarness::deviceId(0)));
        ASSERT_EQ(h.handler->itemCount(), static_cast<size_t>(cap));
        const QVLumerixItemRef weakest = h.item(HandlerHarness::deviceId(7));
        h.advertise(HandlerHarness::deviceId(cap), -60, kRoom);
        EXPECT_EQ(h.handler->itemCount(), static_cast<size_t>(cap));
        EXPECT_TRUE(h.item(HandlerHarness::deviceId(0)));
        EXPECT_FALSE(h.item(HandlerHarness::deviceId(7)));
        EXPECT_TRUE(h.item(HandlerHarness::deviceId(cap)));
        ASSERT_EQ(h.delegate.events("forget").size(), 1u);
        EXPECT_EQ(h.delegate.events("forget")[0].item, weakest);
        EXPECT_FALSE(weakest->decayingGCDTimer());
    }
}

// A repeated record is not decoded again, but an item the decay rule unresolved is.
TEST(HandlerBounds, ARepeatedRecordResolvesAgainAfterDecay) {
    HandlerHarness h;
    h.advertise(HandlerHarness::deviceId(1), 0,
                kRoom);  // accepted, and the decay rule unresolves it 3 s later
    h.advertise(HandlerHarness::deviceId(1), 0, kRoom);
    EXPECT_EQ(h.delegate.values("status"), std::vector<int>{LumerixItemResolved});
    h.time->advance(3000.0);
    ASSERT_FALSE(h.item(HandlerHarness::deviceId(1))->hasResolved());
    h.advertise(HandlerHarness::deviceId(1), -50, kRoom);
    EXPECT_EQ(h.delegate.values("status"), (std::vector<int>{LumerixItemResolved, LumerixItemResolved}));
    EXPECT_EQ(h.item(HandlerHarness::deviceId(1))->receiverName().value_or(QString()),
              QStringLiteral("Room"));
}

}  // namespace
}  // namespace lumerix::test
