// The handler on real threads: advertisements from the scan thread while the main side reads the
// table, and teardown from any thread. Waits on events, never on time; meant for the TSan build.
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
    template <typename Pred>
    bool waitFor(Pred pred) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(60), pred);
    }
    std::mutex mutex;
    std::condition_variable changed;
    int discovered = 0;
};

struct ThreadRig {
    ThreadRig() {
        HandlerEnvironment env;
        env.mainQueue = &main;
        env.makeQueue = [](const std::string& label) { return std::make_unique<ThreadQueue>(label); };
        env.makeCentral = simulatedCentralFactory({});
        handler = QVLumerixHandler::create(std::move(env));
        handler->setDelegate(&delegate);
        // The first state report was queued on the scan queue when the central was made.
        dynamic_cast<ThreadQueue*>(handler->scanningQueue())->sync([] {});
        EXPECT_EQ(handler->mCurrentState(), BleStatePoweredOn);
    }
    // As the shell does: no delegate, no work in flight, then let go; the main queue outlives it.
    ~ThreadRig() {
        if (!handler) return;
        handler->setDelegate(nullptr);
        dynamic_cast<ThreadQueue*>(handler->scanningQueue())->sync([] {});
        dynamic_cast<ThreadQueue*>(handler->evaluatingQueue())->sync([] {});
        handler.reset();
        main.sync([] {});
    }
    SimulatedCentral& central() { return *dynamic_cast<SimulatedCentral*>(handler->cbCM()); }

    ThreadQueue main{"main"};
    CountingDelegate delegate;
    std::shared_ptr<QVLumerixHandler> handler;
};

TEST(HandlerThreads, ConcurrentAdvertisementsAndReaders) {
    ThreadRig rig;
    std::promise<bool> started;
    rig.main.sync([&] { started.set_value(rig.handler->scanForLumerixService(true)); });
    ASSERT_TRUE(started.get_future().get());

    constexpr int kDevices = 8;
    constexpr int kRounds = 250;
    for (int round = 0; round < kRounds; ++round) {
        for (int d = 0; d < kDevices; ++d) {
            const QByteArray rec = makeLumerixRecord(kSegmentSingle, {10, 0, 0, static_cast<uint8_t>(d)}, 1,
                                                     2, QByteArray("Room ") + QByteArray::number(d));
            rig.central().injectAdvertisement(SimulatedCentral::identifierForIndex(static_cast<size_t>(d)),
                                              AdvertisementData{QStringLiteral("LX"), rec},
                                              -40.0 - (round + d) % 50);
        }
        // Readers on this thread and on the main queue while the evaluation queue writes.
        (void)rig.handler->itemAtAddress(QStringLiteral("10.0.0.3"));
        (void)rig.handler->hasClosestItem();
        rig.main.async([h = std::weak_ptr<QVLumerixHandler>(rig.handler)] {
            if (auto handler = h.lock()) {
                for (const auto& item : handler->discoveredDeviceInfo()) (void)item->receiverName();
                (void)handler->closestPeer();
            }
        });
    }
    ASSERT_TRUE(rig.delegate.waitFor([&] { return rig.delegate.discovered == kDevices * kRounds; }));
    EXPECT_EQ(rig.handler->discoveredDeviceInfo().size(), kDevices);
    EXPECT_EQ(rig.handler->itemAtAddress(QStringLiteral("10.0.0.3"))->receiverName().value_or(QString()),
              QStringLiteral("Room 3"));

    std::promise<void> stopped;
    rig.main.sync([&] {
        rig.handler->scanForLumerixService(false);
        stopped.set_value();
    });
    stopped.get_future().get();
    EXPECT_TRUE(rig.handler->discoveredDeviceInfo().isEmpty());
}

TEST(HandlerThreads, LastReferenceDroppedOnTheEvaluationQueue) {
    ThreadRig rig;
    rig.handler->setDelegate(nullptr);
    DispatchQueue* evaluate = rig.handler->evaluatingQueue();
    std::promise<void> dropped;
    evaluate->async([h = std::move(rig.handler), &dropped]() mutable {
        h.reset();  // the teardown must move to the main queue, not join this thread from itself
        dropped.set_value();
    });
    dropped.get_future().wait();
    rig.main.sync([] {});
    SUCCEED();
}

}  // namespace
}  // namespace lumerix
