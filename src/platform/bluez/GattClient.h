#pragma once
// Connections and GATT of the BlueZ central, on the intake thread: Device1.Connect/Disconnect and
// what the delegate hears of them, the services and characteristics bluetoothd resolved below a
// device, ReadValue. The device properties it reads belong to the engine's object cache, which
// tells it when a device's connection changes or the device goes away.
#include <QHash>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <functional>
#include <memory>
#include <optional>

#include "ble/BleCentral.h"
#include "platform/bluez/BluezCharacteristic.h"
#include "platform/bluez/BluezPeripheral.h"
#include "platform/bluez/BluezProperties.h"
#include "platform/bluez/BluezService.h"
#include "platform/bluez/SdBus.h"

namespace lumerix {

class DispatchQueue;

class GattClient final {
public:
    // A second service discovery within one connection is answered no sooner than this after the
    // previous answer, so a caller that repeats until a service shows up does not spin.
    static constexpr double kRediscoveryIntervalMs = 200.0;

    using Deliver = std::function<void(std::function<void()>)>;  // to the delegate queue, in order
    using PeripheralOf = std::function<std::shared_ptr<BluezPeripheral>(const QString&)>;

    // devices: the cache's Device1 properties by path. peripheralOf: the peripheral object made
    // for a device path, or null.
    GattClient(DispatchQueue& queue, BleCentralDelegate* delegate,
               const QHash<QString, BluezDeviceProperties>& devices, PeripheralOf peripheralOf,
               Deliver deliver);

    void setBus(sd_bus* bus) { bus_ = bus; }

    void connectDevice(const QString& path);
    void disconnectDevice(const QString& path);
    void readRssi(const QString& path);
    void discoverServices(const QString& path);
    void discoverCharacteristics(const QString& devicePath, const QString& servicePath);
    void readValue(const QString& devicePath, const QString& characteristicPath);

    // From the cache. A Device1 change that came as a signal, with Connected and
    // ServicesResolved before it.
    void deviceChanged(const QString& path, bool wasConnected, bool wasResolved);
    // Device1.Disconnected: the reason the next disconnection is reported with.
    void noteDisconnectReason(const QString& path, const QString& reason);
    // The device is gone: a connection the delegate knows of ends with error.
    void deviceRemoved(const QString& path, int error);
    QStringList applyService(const QString& path, const QVariantMap& properties);
    QStringList applyCharacteristic(const QString& path, const QVariantMap& properties);
    void removeService(const QString& path);
    void removeCharacteristic(const QString& path);
    // A new snapshot: the properties go, the objects handed out stay for paths that return.
    void forgetProperties();
    // bluetoothd is gone: everything goes.
    void clear();

private:
    struct Link {
        bool connectPending = false;
        bool reportedConnected = false;
        bool servicesPending = false;
        double lastServicesAnswerMs = -1;  // monotonic; throttles repeated discoveries
        QString disconnectReason;
    };

    void reportConnected(const QString& path);
    void reportDisconnected(const QString& path, std::optional<int> error);
    void answerServices(const QString& path);
    bool isConnected(const QString& path) const;
    static double monotonicMs();

    DispatchQueue& queue_;
    BleCentralDelegate* const delegate_;
    const QHash<QString, BluezDeviceProperties>& devices_;
    const PeripheralOf peripheralOf_;
    const Deliver deliver_;
    sd_bus* bus_ = nullptr;

    QHash<QString, Link> links_;                          // by device path
    QMap<QString, BluezGattProperties> services_;         // sorted by path = handle order
    QMap<QString, BluezGattProperties> characteristics_;  // sorted by path = handle order
    QHash<QString, std::shared_ptr<BluezService>> serviceObjects_;
    QHash<QString, std::shared_ptr<BluezCharacteristic>> characteristicObjects_;
};

}  // namespace lumerix
