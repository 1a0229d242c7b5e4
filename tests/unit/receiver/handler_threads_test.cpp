// The handler on real threads: advertisements from the scan thread while the main side reads the
// table, then teardown. Waits on events, never on time; meant for the TSan build.
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>

#include "ble/SimulatedCentral.h"
#include "dispatch/ThreadQueue.h"
#include "receiver/LumerixRecordCodec.h"
#include "receiver/QVLumerixHandler.h"

namespace lumerix {
namespace {

class CountingDelegate final : public LumerixHandler_Delegate {
public:
    void lumerixDidDiscoverItem(const QVLumerixItemRef&) override {
        std::lock_guard lock(mutex);
        ++discovered;
        changed.notify_all();
    }
    bool waitFor(int count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(60), [&] { return discovered == count; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    int discovered = 0;
};

TEST(HandlerThreads, ConcurrentAdvertisementsAndReaders) {
    ThreadQueue main("main");
    CountingDelegate delegate;
    HandlerEnvironment env;
    env.mainQueue = &main;
    env.makeQueue = [](const std::string& label) { return std::make_unique<ThreadQueue>(label); };
    env.makeCentral = simulatedCentralFactory({});
    auto handler = QVLumerixHandler::create(std::move(env));
    handler->setDelegate(&delegate);
    auto* scan = dynamic_cast<ThreadQueue*>(handler->scanningQueue());
    auto* evaluate = dynamic_cast<ThreadQueue*>(handler->evaluatingQueue());
    scan->sync([] {});  // the first state report
    std::promise<bool> started;
    main.sync([&] { started.set_value(handler->scanForLumerixService(true)); });
    ASSERT_TRUE(started.get_future().get());

    auto* central = dynamic_cast<SimulatedCentral*>(handler->cbCM());
    constexpr int kDevices = 8;
    constexpr int kRounds = 250;
    for (int round = 0; round < kRounds; ++round) {
        for (int d = 0; d < kDevices; ++d) {
            const QByteArray rec = makeLumerixRecord(kSegmentSingle, {10, 0, 0, static_cast<uint8_t>(d)}, 1,
                                                     2, QByteArray("Room ") + QByteArray::number(d));
            central->injectAdvertisement(SimulatedCentral::identifierForIndex(static_cast<size_t>(d)),
                                         AdvertisementData{QStringLiteral("LX"), rec},
                                         -40.0 - (round + d) % 50);
        }
        // Readers on this thread and on the main queue while the evaluation queue writes.
        (void)handler->itemAtAddress(QStringLiteral("10.0.0.3"));
        (void)handler->hasClosestItem();
        main.async([h = std::weak_ptr<QVLumerixHandler>(handler)] {
            if (auto strong = h.lock()) {
                for (const auto& item : strong->discoveredDeviceInfo()) (void)item->receiverName();
                (void)strong->closestPeer();
            }
        });
    }
    ASSERT_TRUE(delegate.waitFor(kDevices * kRounds));
    EXPECT_EQ(handler->discoveredDeviceInfo().size(), kDevices);
    EXPECT_EQ(handler->itemAtAddress(QStringLiteral("10.0.0.3"))->receiverName().value_or(QString()),
              QStringLiteral("Room 3"));

    // As the shell does: no delegate, no work in flight, then let go; the main queue outlives it.
    handler->setDelegate(nullptr);
    scan->sync([] {});
    evaluate->sync([] {});
    handler.reset();
    main.sync([] {});
}

}  // namespace
}  // namespace lumerix
