#pragma once
// A handler on virtual time: one VirtualTime, ManualQueues for main, scan and evaluate, a
// SimulatedCentral, and a delegate that records each callback with the queue it arrived on.
#include <QString>
#include <memory>
#include <string>
#include <vector>

#include "ble/SimulatedCentral.h"
#include "dispatch/ManualQueue.h"
#include "receiver/LumerixRecordCodec.h"
#include "receiver/QVLumerixHandler.h"

namespace lumerix::test {

struct DelegateEvent {
    std::string kind;  // state, discover, closest, status, error, forget
    QVLumerixItemRef item;
    int value = 0;
    std::string queue;  // label of DispatchQueue::current() when it arrived
};

// Single-threaded: every queue here is a ManualQueue run from the test's thread.
class RecordingDelegate final : public LumerixHandler_Delegate {
public:
    void lumerixStateDidChange(int state) override { add("state", nullptr, state); }
    void lumerixDidDiscoverItem(const QVLumerixItemRef& item) override { add("discover", item, 0); }
    void lumerixClosestItemDidChange(const QVLumerixItemRef& item) override { add("closest", item, 0); }
    void lumerixItem(const QVLumerixItemRef& item, int status) override { add("status", item, status); }
    void lumerixOnError(int code) override { add("error", nullptr, code); }
    void lumerixDidForgetItem(const QVLumerixItemRef& item) override { add("forget", item, 0); }

    std::vector<DelegateEvent> events(const std::string& kind) const {
        std::vector<DelegateEvent> out;
        for (const auto& e : all)
            if (e.kind == kind) out.push_back(e);
        return out;
    }
    std::vector<int> values(const std::string& kind) const {
        std::vector<int> out;
        for (const auto& e : events(kind)) out.push_back(e.value);
        return out;
    }
    std::vector<DelegateEvent> all;

private:
    void add(const char* kind, QVLumerixItemRef item, int value) {
        DispatchQueue* q = DispatchQueue::current();
        all.push_back({kind, std::move(item), value, q ? q->label() : std::string("none")});
    }
};

struct HandlerHarness {
    explicit HandlerHarness(BleCentralFactory makeCentral = simulatedCentralFactory({})) {
        HandlerEnvironment env;
        env.clock = time;
        env.mainQueue = &main;
        env.makeQueue = [this](const std::string& label) -> std::unique_ptr<DispatchQueue> {
            return std::make_unique<ManualQueue>(*time, label);
        };
        env.makeCentral = std::move(makeCentral);
        handler = QVLumerixHandler::create(std::move(env));
        handler->setDelegate(&delegate);
        run();
    }
    ~HandlerHarness() {
        if (handler) handler->setDelegate(nullptr);
    }

    SimulatedCentral& central() { return *dynamic_cast<SimulatedCentral*>(handler->cbCM()); }
    void run() { time->runUntilIdle(); }

    // One advertisement from `id`, processed through to the main queue.
    void advertise(const QString& id, double rssi, std::optional<QByteArray> record = std::nullopt,
                   std::optional<QString> localName = QStringLiteral("LX")) {
        central().injectAdvertisement(id, AdvertisementData{localName, std::move(record)}, rssi);
        run();
    }
    QVLumerixItemRef item(const QString& id) { return handler->getItemByUUID(id); }
    // A fresh item, not in the table, for calling the decoder directly.
    QVLumerixItemRef looseItem() {
        return QVLumerixItem::initWithPeripheral(central().peripheral(deviceId(99)), time);
    }
    static QString deviceId(int n) { return SimulatedCentral::identifierForIndex(static_cast<size_t>(n)); }

    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();
    ManualQueue main{*time, "main"};
    RecordingDelegate delegate;
    std::shared_ptr<QVLumerixHandler> handler;
};

}  // namespace lumerix::test
