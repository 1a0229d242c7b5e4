// The GATT read with every queue on its own thread, for the thread sanitizer: central callbacks on
// the scan thread, decay timers on the evaluation thread, status reports on a main thread.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <mutex>

#include "dispatch/ThreadQueue.h"
#include "gatt/FakeGattPeripheral.h"
#include "gatt/GattPayload.h"
#include "log/Log.h"
#include "receiver/QVLumerixHandler.h"

namespace lumerix {
namespace {

class StatusWaiter final : public LumerixHandler_Delegate {
public:
    void lumerixItem(const QVLumerixItemRef&, int status) override {
        std::lock_guard lock(mutex_);
        statuses_.push_back(status);
        changed_.notify_all();
    }
    std::vector<int> waitFor(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(20), [&] { return statuses_.size() >= count; });
        return statuses_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<int> statuses_;
};

TEST(GattThreads, AReadOnThreadQueuesReportsConnectedResolvedDisconnected) {
    ScopedLogCapture log;
    ThreadQueue main("main");
    StatusWaiter waiter;
    std::shared_ptr<test::FakeGattPeripheral> peripheral;
    HandlerEnvironment env;
    env.mainQueue = &main;
    env.makeQueue = [](const std::string& label) { return std::make_unique<ThreadQueue>(label); };
    env.makeCentral = [](BleCentralDelegate* d, DispatchQueue* q) {
        return std::make_unique<test::FakeGattCentral>(d, q);
    };
    auto handler = QVLumerixHandler::create(env);
    handler->setDelegate(&waiter);
    auto* scan = static_cast<ThreadQueue*>(handler->scanningQueue());

    const test::ConnectionFields fields{"Lab-WiFi", "s3cret-key", "192.168.1.20", "Room 4", "1234"};
    peripheral = std::make_shared<test::FakeGattPeripheral>(
        QStringLiteral("00000000-0000-0000-0000-0000000000D4"), QStringLiteral("Room 4"), scan);
    auto service = peripheral->addService(0x5885);
    const auto parts = test::chunks(test::encryptFields(fields), 20);
    service->add(0x5880, test::headerValue(0x41, static_cast<uint8_t>(parts.size() - 1), fields));
    for (int i = 0; i < parts.size(); ++i) service->add(static_cast<quint16>(0x5885 + i), parts[i]);

    QVLumerixItemRef item;
    scan->sync([&] {
        item = handler->discoverPeripheral(peripheral, AdvertisementData{QStringLiteral("LX"), std::nullopt},
                                           -60);
        handler->connectItemForTesting(item);
    });
    EXPECT_EQ(waiter.waitFor(3),
              (std::vector<int>{LumerixItemConnected, LumerixItemResolved, LumerixItemDisconnected}));
    const LumerixStruct record = item->lumerix();
    EXPECT_STREQ(record.ReceiverIP, "192.168.1.20");
    EXPECT_STREQ(record.ReceiverName, "Room 4");
    handler->setDelegate(nullptr);
    handler.reset();
}

}  // namespace
}  // namespace lumerix
