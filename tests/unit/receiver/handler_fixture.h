#pragma once
// A handler on virtual time: one VirtualTime, ManualQueues for main, scan and evaluate, a
// SimulatedCentral, and a delegate that records each callback with the queue it arrived on.
#include <QString>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ble/SimulatedCentral.h"
#include "dispatch/ManualQueue.h"
#include "receiver/LumerixRecordCodec.h"
#include "receiver/QVLumerixHandler.h"

namespace lumerix::test {

struct DelegateEvent {
    std::string kind;  // state, discover, closest, status, error
    QVLumerixItemRef item;
    int value = 0;
    std::string queue;  // label of DispatchQueue::current() when it arrived
};

class RecordingDelegate final : public LumerixHandler_Delegate {
public:
    void lumerixStateDidChange(int state) override { add({"state", nullptr, state, here()}); }
    void lumerixDidDiscoverItem(const QVLumerixItemRef& item) override { add({"discover", item, 0, here()}); }
    void lumerixClosestItemDidChange(const QVLumerixItemRef& item) override {
        add({"closest", item, 0, here()});
    }
    void lumerixItem(const QVLumerixItemRef& item, int status) override {
        add({"status", item, status, here()});
    }
    void lumerixOnError(int code) override { add({"error", nullptr, code, here()}); }

    std::vector<DelegateEvent> events(const std::string& kind = {}) const {
        std::lock_guard lock(mutex_);
        std::vector<DelegateEvent> out;
        for (const auto& e : events_)
            if (kind.empty() || e.kind == kind) out.push_back(e);
        return out;
    }
    std::vector<int> values(const std::string& kind) const {
        std::vector<int> out;
        for (const auto& e : events(kind)) out.push_back(e.value);
        return out;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
    }

private:
    static std::string here() {
        DispatchQueue* q = DispatchQueue::current();
        return q ? q->label() : std::string("none");
    }
    void add(DelegateEvent e) {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(e));
    }
    mutable std::mutex mutex_;
    std::vector<DelegateEvent> events_;
};

struct HandlerHarness {
    explicit HandlerHarness(SimulatedScenario scenario = {}, int initialState = BleStatePoweredOn) {
        HandlerEnvironment env;
        env.clock = time;
        env.mainQueue = &main;
        env.makeQueue = [this](const std::string& label) -> std::unique_ptr<DispatchQueue> {
            return std::make_unique<ManualQueue>(*time, label);
        };
        env.makeCentral = simulatedCentralFactory(std::move(scenario), initialState);
        handler = QVLumerixHandler::create(std::move(env));
        handler->setDelegate(&delegate);
        time->runUntilIdle();
    }
    ~HandlerHarness() {
        if (handler) handler->setDelegate(nullptr);
        handler.reset();
    }

    SimulatedCentral& central() { return *dynamic_cast<SimulatedCentral*>(handler->cbCM()); }
    void run() { time->runUntilIdle(); }
    void advance(double ms) { time->advance(ms); }

    // One advertisement from `id`, processed through to the main queue.
    void advertise(const QString& id, double rssi, std::optional<QByteArray> record = std::nullopt,
                   std::optional<QString> localName = QStringLiteral("LX")) {
        central().injectAdvertisement(id, AdvertisementData{localName, std::move(record)}, rssi);
        run();
    }
    QVLumerixItemRef item(const QString& id) { return handler->getItemByUUID(id); }
    // A fresh item, not in the table, for calling the decoder directly.
    QVLumerixItemRef looseItem(const QString& id = QStringLiteral("00000000-0000-0000-0000-0000000000AA")) {
        return QVLumerixItem::initWithPeripheral(central().peripheral(id), time);
    }

    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();
    ManualQueue main{*time, "main"};
    RecordingDelegate delegate;
    std::shared_ptr<QVLumerixHandler> handler;
};

inline QString deviceId(int n) { return SimulatedCentral::identifierForIndex(static_cast<size_t>(n)); }

}  // namespace lumerix::test
