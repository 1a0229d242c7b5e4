#pragma once
// In-process central and peripherals that serve GATT services and characteristics. Every answer
// is posted to the central's queue, as a real central reports, so tests run on virtual time.
// Peripheral answers take latencyMs, like a radio round trip; that also keeps a request loop
// (asking for services again and again) from spinning within one instant.
#include <QByteArray>
#include <QString>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "ble/BleCentral.h"
#include "dispatch/DispatchQueue.h"
#include "dispatch/ThreadQueue.h"
#include "gatt/GattPayload.h"

namespace lumerix::test {

class FakeCharacteristic final : public BleCharacteristic {
public:
    FakeCharacteristic(quint16 uuid, QByteArray served) : uuid_(BleUuid::fromUInt16(uuid)), served_(served) {}
    BleUuid uuid() const override { return uuid_; }
    QByteArray value() const override { return value_; }
    void setValue(const QByteArray& v) { value_ = v; }
    const QByteArray& served() const { return served_; }

private:
    BleUuid uuid_;
    QByteArray served_;
    QByteArray value_;
};

class FakeService final : public BleService {
public:
    explicit FakeService(quint16 uuid) : uuid_(BleUuid::fromUInt16(uuid)) {}
    BleUuid uuid() const override { return uuid_; }
    std::vector<BleCharacteristicRef> characteristics() const override {
        return discovered_ ? std::vector<BleCharacteristicRef>(all_.begin(), all_.end())
                           : std::vector<BleCharacteristicRef>{};
    }
    std::shared_ptr<FakeCharacteristic> add(quint16 uuid, QByteArray value) {
        auto c = std::make_shared<FakeCharacteristic>(uuid, std::move(value));
        all_.push_back(c);
        return c;
    }
    void markDiscovered() { discovered_ = true; }

private:
    BleUuid uuid_;
    std::vector<std::shared_ptr<FakeCharacteristic>> all_;
    bool discovered_ = false;
};

class FakeGattPeripheral final : public BlePeripheral {
public:
    FakeGattPeripheral(QString identifier, QString name, DispatchQueue* queue)
        : identifier_(std::move(identifier)), name_(std::move(name)), queue_(queue) {}

    QString identifier() const override { return identifier_; }
    QString name() const override { return name_; }
    void setDelegate(BlePeripheralDelegate* d) override { delegate_ = d; }

    void readRSSI() override {
        post([this] {
            if (delegate_) delegate_->peripheralDidReadRSSI(*this, rssi, std::nullopt);
        });
    }
    void discoverServices() override {
        ++discoverServicesCalls;
        post([this] {
            if (discoverServicesCalls > hideServicesForDiscoveries) visible_ = true;
            if (delegate_) delegate_->peripheralDidDiscoverServices(*this, std::nullopt);
        });
    }
    std::vector<BleServiceRef> services() const override {
        return visible_ ? std::vector<BleServiceRef>(services_.begin(), services_.end())
                        : std::vector<BleServiceRef>{};
    }
    void discoverCharacteristics(const BleServiceRef& service) override {
        auto fake = std::static_pointer_cast<FakeService>(service);
        post([this, fake] {
            fake->markDiscovered();
            if (delegate_)
                delegate_->peripheralDidDiscoverCharacteristicsForService(*this, fake, std::nullopt);
        });
    }
    void readValueForCharacteristic(const BleCharacteristicRef& c) override {
        auto fake = std::static_pointer_cast<FakeCharacteristic>(c);
        reads.push_back(fake->uuid().toString());
        post([this, fake] {
            fake->setValue(fake->served());
            if (delegate_) delegate_->peripheralDidUpdateValueForCharacteristic(*this, fake, std::nullopt);
        });
    }

    std::shared_ptr<FakeService> addService(quint16 uuid) {
        auto s = std::make_shared<FakeService>(uuid);
        services_.push_back(s);
        return s;
    }

    double rssi = -50;
    // Service discovery answers with no services this many times first.
    int hideServicesForDiscoveries = 0;
    int discoverServicesCalls = 0;
    std::vector<QString> reads;
    // Connecting succeeds (else nothing answers, as with a receiver out of reach).
    bool answersConnect = true;
    double latencyMs = 10;

private:
    void post(std::function<void()> f) { queue_->after(latencyMs, std::move(f)); }

    QString identifier_;
    QString name_;
    DispatchQueue* queue_;
    BlePeripheralDelegate* delegate_ = nullptr;
    std::vector<std::shared_ptr<FakeService>> services_;
    bool visible_ = false;
};

class FakeGattCentral final : public BleCentral {
public:
    FakeGattCentral(BleCentralDelegate* delegate, DispatchQueue* queue, int initialState = BleStatePoweredOn)
        : delegate_(delegate), queue_(queue), state_(initialState) {
        queue_->async([this] { delegate_->centralManagerDidUpdateState(state_); });
    }
    // Like a real central: destruction waits for a callback it is running on its queue.
    ~FakeGattCentral() override {
        if (auto* thread = dynamic_cast<ThreadQueue*>(queue_); thread && !thread->isCurrent())
            thread->sync([] {});
    }

    int state() const override { return state_; }
    void scanForPeripherals(bool) override {}
    void stopScan() override { ++stopScanCalls; }
    void connectPeripheral(const BlePeripheralRef& p) override {
        connects.push_back(p->identifier());
        auto fake = std::static_pointer_cast<FakeGattPeripheral>(p);
        if (!fake->answersConnect) return;
        queue_->async([this, p] {
            connected_[p->identifier()] = true;
            delegate_->centralManagerDidConnectPeripheral(p);
        });
    }
    void cancelPeripheralConnection(const BlePeripheralRef& p) override {
        cancels.push_back(p->identifier());
        if (!connected_[p->identifier()]) return;
        connected_[p->identifier()] = false;
        queue_->async([this, p] { delegate_->centralManagerDidDisconnectPeripheral(p, std::nullopt); });
    }

    // The link drops on the device's side.
    void dropLink(const BlePeripheralRef& p, std::optional<BleError> error) {
        connected_[p->identifier()] = false;
        queue_->async([this, p, error] { delegate_->centralManagerDidDisconnectPeripheral(p, error); });
    }
    void advertise(const BlePeripheralRef& p, const QString& localName, double rssi) {
        AdvertisementData data;
        data.localName = localName;
        queue_->async(
            [this, p, data, rssi] { delegate_->centralManagerDidDiscoverPeripheral(p, data, rssi); });
    }

    int stopScanCalls = 0;
    std::vector<QString> connects;
    std::vector<QString> cancels;

private:
    BleCentralDelegate* delegate_;
    DispatchQueue* queue_;
    int state_;
    std::map<QString, bool> connected_;
};

// The connection info a room's receiver serves in most cases.
inline const ConnectionFields kRoom4{"Lab-WiFi", "s3cret-key", "192.168.1.20", "Room 4", "1234"};

// Serves the receiver service 0x5885: the header at 0x5880 (last index = values - 1), then
// `payload` in 20-byte values from 0x5885 on.

inline std::shared_ptr<FakeService> serveConnectionInfo(FakeGattPeripheral& p, uint8_t byte0,
                                                        const ConnectionFields& f,
                                                        const QByteArray& payload) {
    auto service = p.addService(0x5885);
    const auto values = static_cast<int>((payload.size() + 19) / 20);
    service->add(0x5880, headerValue(byte0, static_cast<uint8_t>(values - 1), f));
    for (int i = 0; i < values; ++i) service->add(static_cast<quint16>(0x5885 + i), payload.mid(i * 20, 20));
    return service;
}

}  // namespace lumerix::test
