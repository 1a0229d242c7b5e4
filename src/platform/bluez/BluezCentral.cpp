#include "platform/bluez/BluezCentral.h"

#include <pthread.h>

#include "ble/ScanDemand.h"
#include "log/Log.h"
#include "platform/bluez/BluezEngine.h"
#include "platform/bluez/BluezLink.h"
#include "platform/bluez/BluezPeripheral.h"

namespace lumerix {
namespace {

QString pathOf(const BlePeripheralRef& peripheral) {
    auto* p = dynamic_cast<BluezPeripheral*>(peripheral.get());
    return p ? p->path() : QString();
}

}  // namespace

BluezCentral::BluezCentral(BleCentralDelegate* delegate, DispatchQueue* queue,
                           std::optional<QString> onlyLocalName, std::shared_ptr<ScanDemand> demand)
    : link_(std::make_shared<BluezLink>(queue)), demand_(std::move(demand)) {
    if (demand_) {
        demandListener_ = demand_->addListener([weak = std::weak_ptr<BluezLink>(link_)] {
            if (auto link = weak.lock()) link->post([](BluezEngine& e) { e.demandChanged(); });
        });
    }
    intake_ = std::thread(
        [this, delegate, link = link_, onlyLocalName = std::move(onlyLocalName), demand = demand_] {
            pthread_setname_np(pthread_self(), "lumerix-bluez");
            BluezEngine engine(delegate, link, onlyLocalName, demand);
            engine.run(stop_);
        });
}

BluezCentral::~BluezCentral() {
    if (demand_) demand_->removeListener(demandListener_);
    link_->closing.store(true);
    link_->detach();
    stop_.store(true);
    link_->wake();
    if (intake_.joinable()) {
        if (intake_.get_id() == std::this_thread::get_id())
            intake_.detach();  // misuse; never wait on ourselves
        else
            intake_.join();
    }
}

BleCentralFactory BluezCentral::factory(const std::optional<QString>& onlyLocalName,
                                        const std::shared_ptr<ScanDemand>& demand) {
    return [onlyLocalName, demand](BleCentralDelegate* delegate,
                                   DispatchQueue* queue) -> std::unique_ptr<BleCentral> {
        return std::make_unique<BluezCentral>(delegate, queue, onlyLocalName, demand);
    };
}

int BluezCentral::state() const { return link_->state.load(); }

void BluezCentral::scanForPeripherals(bool allowDuplicates) {
    link_->post([allowDuplicates](BluezEngine& e) { e.startScan(allowDuplicates); });
}

void BluezCentral::stopScan() {
    link_->post([](BluezEngine& e) { e.stopScan(); });
}

void BluezCentral::connectPeripheral(const BlePeripheralRef& peripheral) {
    const QString path = pathOf(peripheral);
    if (path.isEmpty()) {
        Log::logf("BluezCentral: connect to a peripheral of another central; ignored");
        return;
    }
    link_->post([path](BluezEngine& e) { e.connectDevice(path); });
}

void BluezCentral::cancelPeripheralConnection(const BlePeripheralRef& peripheral) {
    const QString path = pathOf(peripheral);
    if (path.isEmpty()) return;
    link_->post([path](BluezEngine& e) { e.disconnectDevice(path); });
}

}  // namespace lumerix
