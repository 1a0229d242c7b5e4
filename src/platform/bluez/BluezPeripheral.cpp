#include "platform/bluez/BluezPeripheral.h"

#include "log/Log.h"
#include "platform/bluez/BluezCharacteristic.h"
#include "platform/bluez/BluezEngine.h"
#include "platform/bluez/BluezLink.h"
#include "platform/bluez/BluezService.h"

namespace lumerix {

BluezPeripheral::BluezPeripheral(QString path, QString identifier, std::shared_ptr<BluezLink> link)
    : path_(std::move(path)), identifier_(std::move(identifier)), link_(std::move(link)) {}

QString BluezPeripheral::name() const {
    std::lock_guard lock(mutex_);
    return name_;
}

void BluezPeripheral::setName(const QString& name) {
    std::lock_guard lock(mutex_);
    name_ = name;
}

std::vector<BleServiceRef> BluezPeripheral::services() const {
    std::lock_guard lock(mutex_);
    return services_;
}

void BluezPeripheral::setServices(std::vector<BleServiceRef> list) {
    std::lock_guard lock(mutex_);
    services_ = std::move(list);
}

void BluezPeripheral::readRSSI() {
    if (link_) link_->post([path = path_](BluezEngine& e) { e.readRssi(path); });
}

void BluezPeripheral::discoverServices() {
    if (link_) link_->post([path = path_](BluezEngine& e) { e.discoverServices(path); });
}

void BluezPeripheral::discoverCharacteristics(const BleServiceRef& service) {
    auto* s = dynamic_cast<BluezService*>(service.get());
    if (!s) {
        Log::logf("BluezCentral: characteristic discovery for a service of another central; ignored");
        return;
    }
    if (link_)
        link_->post([path = path_, sp = s->path()](BluezEngine& e) { e.discoverCharacteristics(path, sp); });
}

void BluezPeripheral::readValueForCharacteristic(const BleCharacteristicRef& characteristic) {
    auto* c = dynamic_cast<BluezCharacteristic*>(characteristic.get());
    if (!c) {
        Log::logf("BluezCentral: read of a characteristic of another central; ignored");
        return;
    }
    if (link_) link_->post([path = path_, cp = c->path()](BluezEngine& e) { e.readValue(path, cp); });
}

}  // namespace lumerix
