// The connection bookkeeping of the BlueZ central: what the delegate hears as the cache reports a
// device's Connected and ServicesResolved. Calls go out on a connection whose peer never answers,
// so only the signals the test plays decide.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "OfflineBus.h"
#include "dispatch/ManualQueue.h"
#include "platform/bluez/GattClient.h"

namespace lumerix {
namespace {

const QString kDevice = QStringLiteral("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_21");

class Recorder final : public BleCentralDelegate {
public:
    void centralManagerDidConnectPeripheral(const BlePeripheralRef&) override {
        events.emplace_back("connected");
    }
    void centralManagerDidFailToConnectPeripheral(const BlePeripheralRef&,
                                                  const std::optional<BleError>& e) override {
        events.push_back("failed: " + (e ? e->description.toStdString() : std::string()));
    }
    void centralManagerDidDisconnectPeripheral(const BlePeripheralRef&,
                                               const std::optional<BleError>& e) override {
        events.push_back("disconnected " + (e ? std::to_string(e->code) : std::string("cleanly")));
    }
    std::vector<std::string> events;
};

class GattClientTest : public ::testing::Test {
protected:
    GattClientTest() {
        devices_[kDevice].address = QStringLiteral("AA:BB:CC:DD:EE:21");
        peripheral_ = std::make_shared<BluezPeripheral>(kDevice, QStringLiteral("id"), nullptr);
        gatt_.setBus(bus_.get());
    }
    ~GattClientTest() override { gatt_.setBus(nullptr); }

    // The cache saw Connected (and ServicesResolved) change.
    void change(std::optional<bool> connected, std::optional<bool> resolved = std::nullopt) {
        BluezDeviceProperties& d = devices_[kDevice];
        const bool wasConnected = d.connected.value_or(false);
        const bool wasResolved = d.servicesResolved.value_or(false);
        if (connected) d.connected = *connected;
        if (resolved) d.servicesResolved = *resolved;
        gatt_.deviceChanged(kDevice, wasConnected, wasResolved);
    }
    std::vector<std::string> take() {
        for (auto& fn : delivered_) fn();
        delivered_.clear();
        return std::exchange(delegate_.events, {});
    }

    test::OfflineBus bus_;
    VirtualTime time_;
    ManualQueue queue_{time_};
    Recorder delegate_;
    QHash<QString, BluezDeviceProperties> devices_;
    std::shared_ptr<BluezPeripheral> peripheral_;
    std::vector<std::function<void()>> delivered_;
    GattClient gatt_{queue_, &delegate_, devices_,
                     [this](const QString& path) { return path == kDevice ? peripheral_ : nullptr; },
                     [this](std::function<void()> fn) { delivered_.push_back(std::move(fn)); }};
};

TEST_F(GattClientTest, TheDelegateHearsOnlyConnectionsItAskedForWithTheReasonTheyEnded) {
    // Connected without a Connect call: nobody asked, nobody hears.
    change(true);
    change(false);
    EXPECT_TRUE(take().empty());

    struct Step {
        const char* reason;  // Device1.Disconnected before Connected turns false; null for none
        std::string heard;
    };
    const Step steps[] = {
        {"org.bluez.Reason.Remote", "disconnected 7"},
        {"org.bluez.Reason.Timeout", "disconnected 6"},
        {"org.bluez.Reason.Local", "disconnected cleanly"},
        {nullptr, "disconnected cleanly"},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.heard);
        gatt_.connectDevice(kDevice);
        change(true);
        EXPECT_EQ(take(), std::vector<std::string>{"connected"});
        gatt_.connectDevice(kDevice);  // already connected: no second call, no second report
        if (s.reason) gatt_.noteDisconnectReason(kDevice, QString::fromUtf8(s.reason));
        change(false);
        EXPECT_EQ(take(), std::vector<std::string>{s.heard});
    }

    // The object goes while connected: the delegate hears it with the error given.
    gatt_.connectDevice(kDevice);
    change(true);
    gatt_.deviceRemoved(kDevice, BluezErrorPeripheralDisconnected);
    EXPECT_EQ(take(), (std::vector<std::string>{"connected", "disconnected 7"}));
    devices_.remove(kDevice);
    gatt_.connectDevice(kDevice);
    EXPECT_EQ(take(), std::vector<std::string>{"failed: the device is gone"});
}

}  // namespace
}  // namespace lumerix
