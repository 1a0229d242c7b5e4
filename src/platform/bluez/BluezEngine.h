#pragma once
// The part of BluezCentral that lives on the scan thread: the system-bus connection, the signal
// subscriptions, the cache of adapters, devices and GATT objects, and every D-Bus call.
#include <QDBusConnection>
#include <QDBusMessage>
#include <QHash>
#include <QObject>
#include <functional>
#include <memory>
#include <optional>

#include "ble/BleCentral.h"
#include "platform/bluez/BluezCharacteristic.h"
#include "platform/bluez/BluezPeripheral.h"
#include "platform/bluez/BluezProperties.h"
#include "platform/bluez/BluezService.h"

class QDBusServiceWatcher;

namespace lumerix {

class BluezLink;

class BluezEngine final : public QObject {
    Q_OBJECT
public:
    BluezEngine(BleCentralDelegate* delegate, const std::shared_ptr<BluezLink>& link, QString connectionName);
    ~BluezEngine() override;

    void start();
    void startScan(bool allowDuplicates);
    void stopScan();
    void connectDevice(const QString& path);
    void disconnectDevice(const QString& path);
    void readRssi(const QString& path);
    void discoverServices(const QString& path);
    void discoverCharacteristics(const QString& devicePath, const QString& servicePath);
    void readValue(const QString& devicePath, const QString& characteristicPath);

private Q_SLOTS:
    void onInterfacesAdded(const QDBusMessage& message);
    void onInterfacesRemoved(const QDBusMessage& message);
    void onPropertiesChanged(const QDBusMessage& message);
    void onDeviceDisconnected(const QDBusMessage& message);

private:
    struct Device {
        BluezDeviceProperties props;
        bool connectPending = false;
        bool reportedConnected = false;
        bool servicesPending = false;
        double lastServicesAnswerMs = -1;  // monotonic; throttles repeated discoveries
        QString disconnectReason;
    };
    struct GattObject {
        BluezGattProperties props;
    };

    void takeSnapshot();
    void onSnapshot(quint64 generation, const QDBusMessage& reply);
    void clearObjects(int disconnectError);
    void addInterfaces(const QString& path, const QMap<QString, QVariantMap>& interfaces, bool fromSignal);
    void updateDevice(const QString& path, const QVariantMap& changed, const QStringList& invalidated,
                      bool fromSignal);
    void removeDevice(const QString& path, int disconnectError);
    void recomputeState();
    QString adapterPath() const;
    void beginDiscovery();

    std::shared_ptr<BluezPeripheral> peripheralFor(const QString& path);
    void reportAdvertisement(const QString& path);
    void reportConnected(const QString& path);
    void reportDisconnected(const QString& path, std::optional<int> error);
    void answerServices(const QString& path);
    void call(const QDBusMessage& message, std::function<void(const QDBusMessage&)> done, int timeoutMs = -1);
    void deliver(std::function<void()> fn);
    void logProblems(const QString& path, const QString& interface, const QStringList& problems);
    double monotonicMs() const;

    BleCentralDelegate* const delegate_;
    std::weak_ptr<BluezLink> link_;
    const QString connectionName_;
    QDBusConnection bus_;
    QDBusServiceWatcher* watcher_ = nullptr;

    quint64 snapshotGeneration_ = 0;
    bool snapshotDone_ = false;
    bool bluezPresent_ = false;
    bool accessDenied_ = false;
    bool stateReported_ = false;
    int state_ = 0;
    bool scanning_ = false;
    bool discoveryActive_ = false;
    bool allowDuplicates_ = true;
    QString discoveryAdapter_;  // the adapter discovery was started on

    QMap<QString, BluezAdapterProperties> adapters_;  // sorted: the first is the default adapter
    QHash<QString, Device> devices_;
    QMap<QString, GattObject> services_;         // sorted by path = handle order
    QMap<QString, GattObject> characteristics_;  // sorted by path = handle order
    QHash<QString, std::shared_ptr<BluezPeripheral>> peripherals_;
    QHash<QString, std::shared_ptr<BluezService>> serviceObjects_;
    QHash<QString, std::shared_ptr<BluezCharacteristic>> characteristicObjects_;
};

}  // namespace lumerix
