#include "platform/bluez/GattClient.h"

#include <chrono>

#include "dispatch/DispatchQueue.h"
#include "log/Log.h"
#include "platform/bluez/BluezInterfaces.h"

namespace lumerix {
namespace {

using bluez::Device1;
using bluez::GattCharacteristic1;

}  // namespace

GattClient::GattClient(DispatchQueue& queue, BleCentralDelegate* delegate,
                       const QHash<QString, BluezDeviceProperties>& devices, PeripheralOf peripheralOf,
                       Deliver deliver)
    : queue_(queue),
      delegate_(delegate),
      devices_(devices),
      peripheralOf_(std::move(peripheralOf)),
      deliver_(std::move(deliver)) {}

bool GattClient::isConnected(const QString& path) const {
    auto it = links_.constFind(path);
    return it != links_.constEnd() && it->reportedConnected;
}

// --- connections --------------------------------------------------------------------------------

void GattClient::connectDevice(const QString& path) {
    auto peripheral = peripheralOf_(path);
    if (!devices_.contains(path) || !peripheral || !bus_) {
        Log::logf("BluezCentral: connect to unknown device %s", qUtf8Printable(path));
        if (peripheral) {
            BleCentralDelegate* delegate = delegate_;
            if (!delegate) return;
            deliver_([delegate, peripheral] {
                delegate->centralManagerDidFailToConnectPeripheral(
                    peripheral, BleError{BluezErrorConnectionFailed, QStringLiteral("the device is gone")});
            });
        }
        return;
    }
    Link& link = links_[path];
    if (link.reportedConnected) return;
    link.connectPending = true;
    Device1::connect(bus_, path, [this, path](const sdbus::Reply& reply) {
        auto l = links_.find(path);
        if (l == links_.end() || !l->connectPending || !devices_.contains(path)) return;
        if (reply.ok() || reply.errorName == QLatin1String("org.bluez.Error.AlreadyConnected")) {
            reportConnected(path);
            return;
        }
        l->connectPending = false;
        Log::logf("BluezCentral: Connect %s failed: %s", qUtf8Printable(path),
                  qUtf8Printable(reply.errorText()));
        auto peripheral = peripheralOf_(path);
        BleCentralDelegate* delegate = delegate_;
        if (!peripheral || !delegate) return;
        BleError error{BluezErrorConnectionFailed, reply.errorText()};
        deliver_([delegate, peripheral, error] {
            delegate->centralManagerDidFailToConnectPeripheral(peripheral, error);
        });
    });
}

void GattClient::disconnectDevice(const QString& path) {
    auto device = devices_.constFind(path);
    if (device == devices_.constEnd() || !bus_) return;
    Link& link = links_[path];
    link.connectPending = false;
    if (!link.reportedConnected && !device->connected.value_or(false)) return;
    Device1::disconnect(bus_, path, [path](const sdbus::Reply& reply) {
        if (!reply.ok())
            Log::logf("BluezCentral: Disconnect %s failed: %s", qUtf8Printable(path),
                      qUtf8Printable(reply.errorText()));
    });
}

void GattClient::deviceChanged(const QString& path, bool wasConnected, bool wasResolved) {
    auto device = devices_.constFind(path);
    if (device == devices_.constEnd()) return;
    const bool connected = device->connected.value_or(false);
    const bool resolved = device->servicesResolved.value_or(false);
    auto link = links_.find(path);
    if (link == links_.end()) return;  // never asked to connect: nothing to report
    if (connected && !wasConnected && link->connectPending) reportConnected(path);
    if (!connected && wasConnected) {
        std::optional<int> error = bluez::disconnectErrorForReason(link->disconnectReason);
        link->disconnectReason.clear();
        if (link->reportedConnected) reportDisconnected(path, error);
        return;
    }
    if (resolved && !wasResolved && link->servicesPending) answerServices(path);
}

void GattClient::noteDisconnectReason(const QString& path, const QString& reason) {
    if (devices_.contains(path)) links_[path].disconnectReason = reason;
}

void GattClient::deviceRemoved(const QString& path, int error) {
    auto link = links_.find(path);
    if (link == links_.end()) return;
    const bool connected = link->reportedConnected;
    links_.erase(link);
    if (connected) reportDisconnected(path, error);
}

void GattClient::reportConnected(const QString& path) {
    auto link = links_.find(path);
    if (link == links_.end() || link->reportedConnected) return;
    link->connectPending = false;
    link->reportedConnected = true;
    link->lastServicesAnswerMs = -1;
    auto peripheral = peripheralOf_(path);
    BleCentralDelegate* delegate = delegate_;
    if (!peripheral || !delegate) return;
    deliver_([delegate, peripheral] { delegate->centralManagerDidConnectPeripheral(peripheral); });
}

void GattClient::reportDisconnected(const QString& path, std::optional<int> error) {
    auto link = links_.find(path);
    if (link != links_.end()) {
        link->reportedConnected = false;
        link->servicesPending = false;
    }
    auto peripheral = peripheralOf_(path);
    if (!peripheral) return;
    std::optional<BleError> e;
    if (error) e = BleError{*error, QStringLiteral("disconnected (code %1)").arg(*error)};
    BleCentralDelegate* delegate = delegate_;
    if (!delegate) return;
    deliver_([delegate, peripheral, e] { delegate->centralManagerDidDisconnectPeripheral(peripheral, e); });
}

void GattClient::readRssi(const QString& path) {
    auto peripheral = peripheralOf_(path);
    if (!peripheral) return;
    auto it = devices_.constFind(path);
    const bool connected = it != devices_.constEnd() && isConnected(path);
    const double rssi = it != devices_.constEnd() && it->rssi ? double(*it->rssi) : kRssiNoReading;
    std::optional<BleError> error;
    if (!connected) error = BleError{BluezErrorNotConnected, QStringLiteral("not connected")};
    deliver_([peripheral, rssi, error] {
        if (auto* d = peripheral->delegate()) d->peripheralDidReadRSSI(*peripheral, rssi, error);
    });
}

// --- services and characteristics ---------------------------------------------------------------

void GattClient::discoverServices(const QString& path) {
    auto device = devices_.constFind(path);
    if (device == devices_.constEnd() || !isConnected(path)) {
        Log::logf("BluezCentral: service discovery on %s, which is not connected; ignored",
                  qUtf8Printable(path));
        return;
    }
    Link& link = links_[path];
    if (!device->servicesResolved.value_or(false)) {
        link.servicesPending = true;  // answered when ServicesResolved turns true
        return;
    }
    const double since = monotonicMs() - link.lastServicesAnswerMs;
    if (link.lastServicesAnswerMs >= 0 && since < kRediscoveryIntervalMs) {
        link.servicesPending = true;
        queue_.after(kRediscoveryIntervalMs - since, [this, path] {
            auto l = links_.constFind(path);
            if (l != links_.constEnd() && l->servicesPending && l->reportedConnected &&
                devices_.contains(path))
                answerServices(path);
        });
        return;
    }
    answerServices(path);
}

void GattClient::answerServices(const QString& path) {
    auto link = links_.find(path);
    if (link == links_.end()) return;
    link->servicesPending = false;
    link->lastServicesAnswerMs = monotonicMs();
    auto peripheral = peripheralOf_(path);
    if (!peripheral) return;
    std::vector<BleServiceRef> list;
    for (auto s = services_.constBegin(); s != services_.constEnd(); ++s) {
        if (!bluez::isBelow(s.key(), path) || !s->uuid) continue;
        auto& object = serviceObjects_[s.key()];
        if (!object) object = std::make_shared<BluezService>(s.key(), BleUuid::fromString(*s->uuid));
        list.push_back(object);
    }
    peripheral->setServices(list);
    deliver_([peripheral] {
        if (auto* d = peripheral->delegate()) d->peripheralDidDiscoverServices(*peripheral, std::nullopt);
    });
}

void GattClient::discoverCharacteristics(const QString& devicePath, const QString& servicePath) {
    auto peripheral = peripheralOf_(devicePath);
    auto service = serviceObjects_.value(servicePath);
    if (!peripheral || !service || !devices_.contains(devicePath) || !isConnected(devicePath)) {
        Log::logf("BluezCentral: characteristic discovery for %s on a device that is not connected; ignored",
                  qUtf8Printable(servicePath));
        return;
    }
    std::vector<BleCharacteristicRef> list;
    for (auto c = characteristics_.constBegin(); c != characteristics_.constEnd(); ++c) {
        if (!bluez::isBelow(c.key(), servicePath) || !c->uuid) continue;
        auto& object = characteristicObjects_[c.key()];
        if (!object) object = std::make_shared<BluezCharacteristic>(c.key(), BleUuid::fromString(*c->uuid));
        list.push_back(object);
    }
    service->setCharacteristics(list);
    BleServiceRef ref = service;
    deliver_([peripheral, ref] {
        if (auto* d = peripheral->delegate())
            d->peripheralDidDiscoverCharacteristicsForService(*peripheral, ref, std::nullopt);
    });
}

void GattClient::readValue(const QString& devicePath, const QString& characteristicPath) {
    auto peripheral = peripheralOf_(devicePath);
    auto characteristic = characteristicObjects_.value(characteristicPath);
    if (!peripheral || !characteristic || !bus_) {
        Log::logf("BluezCentral: read of unknown characteristic %s ignored",
                  qUtf8Printable(characteristicPath));
        return;
    }
    GattCharacteristic1::readValue(
        bus_, characteristicPath, [this, peripheral, characteristic](const sdbus::Reply& reply) {
            std::optional<BleError> error;
            QByteArray value;
            QString problem;
            if (!reply.ok()) {
                error = BleError{bluez::errorCodeForDBusError(reply.errorName), reply.errorText()};
            } else if (!GattCharacteristic1::value(reply, &value, &problem)) {
                error = BleError{BluezErrorUnknown, problem};
            } else {
                characteristic->setValue(value);
            }
            if (error)
                Log::logf("BluezCentral: ReadValue %s failed: %s", qUtf8Printable(characteristic->path()),
                          qUtf8Printable(error->description));
            BleCharacteristicRef ref = characteristic;
            deliver_([peripheral, ref, error] {
                if (auto* d = peripheral->delegate())
                    d->peripheralDidUpdateValueForCharacteristic(*peripheral, ref, error);
            });
        });
}

QStringList GattClient::applyService(const QString& path, const QVariantMap& properties) {
    return services_[path].apply(properties);
}

QStringList GattClient::applyCharacteristic(const QString& path, const QVariantMap& properties) {
    return characteristics_[path].apply(properties);
}

void GattClient::removeService(const QString& path) {
    services_.remove(path);
    serviceObjects_.remove(path);
}

void GattClient::removeCharacteristic(const QString& path) {
    characteristics_.remove(path);
    characteristicObjects_.remove(path);
}

void GattClient::forgetProperties() {
    services_.clear();
    characteristics_.clear();
}

void GattClient::clear() {
    forgetProperties();
    serviceObjects_.clear();
    characteristicObjects_.clear();
}

double GattClient::monotonicMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace lumerix
