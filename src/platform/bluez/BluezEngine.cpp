#include "platform/bluez/BluezEngine.h"

#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>
#include <QTimer>
#include <algorithm>
#include <chrono>

#include "log/Log.h"
#include "platform/bluez/BluezLink.h"

namespace lumerix {
namespace {

const QString kService = QStringLiteral("org.bluez");
const QString kObjectManager = QStringLiteral("org.freedesktop.DBus.ObjectManager");
const QString kProperties = QStringLiteral("org.freedesktop.DBus.Properties");
const QString kAdapter = QStringLiteral("org.bluez.Adapter1");
const QString kDevice = QStringLiteral("org.bluez.Device1");
const QString kGattService = QStringLiteral("org.bluez.GattService1");
const QString kGattCharacteristic = QStringLiteral("org.bluez.GattCharacteristic1");

// A second service discovery within one connection is answered no sooner than this after the
// previous answer, so a caller that repeats until a service shows up does not spin.
constexpr double kRediscoveryIntervalMs = 200.0;

QByteArray utf8(const QString& s) { return s.toUtf8(); }

QString errorText(const QDBusMessage& reply) {
    return reply.errorName() + QStringLiteral(": ") + reply.errorMessage();
}

using InterfaceMap = QMap<QString, QVariantMap>;

}  // namespace

BluezEngine::BluezEngine(BleCentralDelegate* delegate, const std::shared_ptr<BluezLink>& link,
                         QString connectionName)
    : delegate_(delegate), link_(link), connectionName_(std::move(connectionName)), bus_(connectionName_) {}

BluezEngine::~BluezEngine() {
    delete watcher_;
    watcher_ = nullptr;
    if (bus_.isConnected()) {
        bus_.disconnect(kService, QStringLiteral("/"), kObjectManager, QStringLiteral("InterfacesAdded"),
                        this, SLOT(onInterfacesAdded(QDBusMessage)));
        bus_.disconnect(kService, QStringLiteral("/"), kObjectManager, QStringLiteral("InterfacesRemoved"),
                        this, SLOT(onInterfacesRemoved(QDBusMessage)));
        bus_.disconnect(kService, QString(), kProperties, QStringLiteral("PropertiesChanged"), this,
                        SLOT(onPropertiesChanged(QDBusMessage)));
        bus_.disconnect(kService, QString(), kDevice, QStringLiteral("Disconnected"), this,
                        SLOT(onDeviceDisconnected(QDBusMessage)));
    }
    // Pending-call watchers are children and go with this object; then the connection is closed,
    // which also ends any discovery session bluetoothd keeps for it.
    qDeleteAll(findChildren<QDBusPendingCallWatcher*>());
    QDBusConnection::disconnectFromBus(connectionName_);
}

void BluezEngine::start() {
    bus_ = QDBusConnection::connectToBus(QDBusConnection::SystemBus, connectionName_);
    if (!bus_.isConnected()) {
        Log::logf("BluezCentral: cannot reach the system bus: %s",
                  utf8(bus_.lastError().message()).constData());
        snapshotDone_ = true;
        recomputeState();
        return;
    }
    // Subscribe before the snapshot so that nothing falls between the two.
    bool ok = bus_.connect(kService, QStringLiteral("/"), kObjectManager, QStringLiteral("InterfacesAdded"),
                           this, SLOT(onInterfacesAdded(QDBusMessage)));
    ok = bus_.connect(kService, QStringLiteral("/"), kObjectManager, QStringLiteral("InterfacesRemoved"),
                      this, SLOT(onInterfacesRemoved(QDBusMessage))) &&
         ok;
    ok = bus_.connect(kService, QString(), kProperties, QStringLiteral("PropertiesChanged"), this,
                      SLOT(onPropertiesChanged(QDBusMessage))) &&
         ok;
    ok = bus_.connect(kService, QString(), kDevice, QStringLiteral("Disconnected"), this,
                      SLOT(onDeviceDisconnected(QDBusMessage))) &&
         ok;
    if (!ok) Log::logf("BluezCentral: could not subscribe to every org.bluez signal");

    watcher_ = new QDBusServiceWatcher(
        kService, bus_,
        QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration);
    connect(watcher_, &QDBusServiceWatcher::serviceRegistered, this, [this](const QString&) {
        Log::logf("BluezCentral: org.bluez appeared on the system bus");
        takeSnapshot();
    });
    connect(watcher_, &QDBusServiceWatcher::serviceUnregistered, this, [this](const QString&) {
        Log::logf("BluezCentral: org.bluez left the system bus");
        ++snapshotGeneration_;
        bluezPresent_ = false;
        accessDenied_ = false;
        clearObjects(BluezErrorPeripheralDisconnected);
        recomputeState();
    });
    takeSnapshot();
}

void BluezEngine::takeSnapshot() {
    const quint64 generation = ++snapshotGeneration_;
    auto msg = QDBusMessage::createMethodCall(kService, QStringLiteral("/"), kObjectManager,
                                              QStringLiteral("GetManagedObjects"));
    call(msg, [this, generation](const QDBusMessage& reply) { onSnapshot(generation, reply); });
}

void BluezEngine::onSnapshot(quint64 generation, const QDBusMessage& reply) {
    if (generation != snapshotGeneration_) return;  // an owner change made it stale
    snapshotDone_ = true;
    if (reply.type() == QDBusMessage::ErrorMessage) {
        const QString name = reply.errorName();
        accessDenied_ = name == QLatin1String("org.freedesktop.DBus.Error.AccessDenied");
        bluezPresent_ = accessDenied_;
        if (!accessDenied_)
            Log::logf("BluezCentral: org.bluez is not available (%s)", utf8(errorText(reply)).constData());
        else
            Log::logf("BluezCentral: access to org.bluez denied (%s)",
                      utf8(reply.errorMessage()).constData());
        clearObjects(BluezErrorPeripheralDisconnected);
        recomputeState();
        return;
    }
    bluezPresent_ = true;
    accessDenied_ = false;
    QMap<QDBusObjectPath, InterfaceMap> objects;
    if (reply.signature() == QLatin1String("a{oa{sa{sv}}}") && !reply.arguments().isEmpty()) {
        reply.arguments().at(0).value<QDBusArgument>() >> objects;
    } else {
        Log::logf("BluezCentral: GetManagedObjects answered with signature \"%s\"; ignored",
                  utf8(reply.signature()).constData());
    }

    // Keep connection bookkeeping of devices that are still there; drop the rest.
    QHash<QString, Device> previous;
    previous.swap(devices_);
    adapters_.clear();
    services_.clear();
    characteristics_.clear();
    for (auto it = objects.constBegin(); it != objects.constEnd(); ++it) {
        const QString path = it.key().path();
        if (previous.contains(path)) devices_.insert(path, previous.value(path));
        addInterfaces(path, it.value(), false);
    }
    for (auto it = previous.constBegin(); it != previous.constEnd(); ++it) {
        if (!devices_.contains(it.key()) && it->reportedConnected)
            reportDisconnected(it.key(), BluezErrorPeripheralDisconnected);
    }
    recomputeState();
}

void BluezEngine::clearObjects(int disconnectError) {
    const QStringList paths = devices_.keys();
    for (const QString& path : paths) removeDevice(path, disconnectError);
    adapters_.clear();
    services_.clear();
    characteristics_.clear();
    serviceObjects_.clear();
    characteristicObjects_.clear();
}

void BluezEngine::addInterfaces(const QString& path, const InterfaceMap& interfaces, bool fromSignal) {
    for (auto it = interfaces.constBegin(); it != interfaces.constEnd(); ++it) {
        const QString& iface = it.key();
        if (iface == kAdapter) {
            logProblems(path, iface, adapters_[path].apply(it.value()));
        } else if (iface == kDevice) {
            updateDevice(path, it.value(), {}, fromSignal);
            if (fromSignal) reportAdvertisement(path);
        } else if (iface == kGattService) {
            logProblems(path, iface, services_[path].props.apply(it.value()));
        } else if (iface == kGattCharacteristic) {
            logProblems(path, iface, characteristics_[path].props.apply(it.value()));
        }
    }
    if (fromSignal && interfaces.contains(kAdapter)) recomputeState();
}

void BluezEngine::updateDevice(const QString& path, const QVariantMap& changed,
                               const QStringList& invalidated, bool fromSignal) {
    Device& device = devices_[path];
    const bool wasConnected = device.props.connected.value_or(false);
    const bool wasResolved = device.props.servicesResolved.value_or(false);
    logProblems(path, kDevice, device.props.apply(changed, invalidated));
    if (device.props.name) peripheralFor(path);  // keeps the peripheral's name current
    if (!fromSignal) return;

    const bool connected = device.props.connected.value_or(false);
    const bool resolved = device.props.servicesResolved.value_or(false);
    if (connected && !wasConnected && device.connectPending) reportConnected(path);
    if (!connected && wasConnected) {
        Device& d = devices_[path];
        std::optional<int> error = bluez::disconnectErrorForReason(d.disconnectReason);
        d.disconnectReason.clear();
        d.props.servicesResolved = false;
        if (d.reportedConnected) reportDisconnected(path, error);
        return;
    }
    if (resolved && !wasResolved && devices_[path].servicesPending) answerServices(path);
}

void BluezEngine::removeDevice(const QString& path, int disconnectError) {
    auto it = devices_.find(path);
    if (it == devices_.end()) return;
    const bool connected = it->reportedConnected;
    devices_.erase(it);
    if (connected) reportDisconnected(path, disconnectError);
    // Keep the peripheral while an item still holds it, so the device keeps its object if it returns.
    auto p = peripherals_.find(path);
    if (p != peripherals_.end() && p->use_count() == 1) peripherals_.erase(p);
}

void BluezEngine::onInterfacesAdded(const QDBusMessage& message) {
    if (message.signature() != QLatin1String("oa{sa{sv}}")) {
        Log::logf("BluezCentral: InterfacesAdded with signature \"%s\" ignored",
                  utf8(message.signature()).constData());
        return;
    }
    const QString path = message.arguments().at(0).value<QDBusObjectPath>().path();
    InterfaceMap interfaces;
    message.arguments().at(1).value<QDBusArgument>() >> interfaces;
    addInterfaces(path, interfaces, true);
}

void BluezEngine::onInterfacesRemoved(const QDBusMessage& message) {
    if (message.signature() != QLatin1String("oas")) {
        Log::logf("BluezCentral: InterfacesRemoved with signature \"%s\" ignored",
                  utf8(message.signature()).constData());
        return;
    }
    const QString path = message.arguments().at(0).value<QDBusObjectPath>().path();
    const QStringList interfaces = message.arguments().at(1).toStringList();
    if (interfaces.contains(kAdapter)) {
        adapters_.remove(path);
        recomputeState();
    }
    if (interfaces.contains(kDevice)) removeDevice(path, BluezErrorPeripheralDisconnected);
    if (interfaces.contains(kGattService)) {
        services_.remove(path);
        serviceObjects_.remove(path);
    }
    if (interfaces.contains(kGattCharacteristic)) {
        characteristics_.remove(path);
        characteristicObjects_.remove(path);
    }
}

void BluezEngine::onPropertiesChanged(const QDBusMessage& message) {
    if (message.signature() != QLatin1String("sa{sv}as")) {
        Log::logf("BluezCentral: PropertiesChanged with signature \"%s\" on %s ignored",
                  utf8(message.signature()).constData(), utf8(message.path()).constData());
        return;
    }
    const QString path = message.path();
    const QString iface = message.arguments().at(0).toString();
    QVariantMap changed;
    message.arguments().at(1).value<QDBusArgument>() >> changed;
    const QStringList invalidated = message.arguments().at(2).toStringList();

    if (iface == kAdapter) {
        if (!adapters_.contains(path))
            return;  // not announced yet; the snapshot or InterfacesAdded brings it
        logProblems(path, iface, adapters_[path].apply(changed, invalidated));
        recomputeState();
    } else if (iface == kDevice) {
        updateDevice(path, changed, invalidated, true);
        if (changed.contains(QStringLiteral("RSSI")) || changed.contains(QStringLiteral("ManufacturerData")))
            reportAdvertisement(path);
    }
}

void BluezEngine::onDeviceDisconnected(const QDBusMessage& message) {
    // Device1.Disconnected(reason, message) comes just before Connected turns false.
    if (message.arguments().isEmpty() || message.arguments().at(0).typeId() != QMetaType::QString) return;
    auto it = devices_.find(message.path());
    if (it != devices_.end()) it->disconnectReason = message.arguments().at(0).toString();
}

QString BluezEngine::adapterPath() const { return adapters_.isEmpty() ? QString() : adapters_.firstKey(); }

void BluezEngine::recomputeState() {
    if (!snapshotDone_) return;
    std::optional<BluezAdapterProperties> adapter;
    if (!adapters_.isEmpty()) adapter = adapters_.first();
    const int state = bluez::centralState(bluezPresent_, accessDenied_, adapter);
    if (state == 5 && scanning_ && adapterPath() != discoveryAdapter_)
        beginDiscovery();  // new default adapter
    if (stateReported_ && state == state_) return;
    if (state != 5) {
        scanning_ = false;
        discoveryActive_ = false;
        discoveryAdapter_.clear();
    }
    Log::logf("BluezCentral: state %d (%s)", state, utf8(adapterPath()).constData());
    state_ = state;
    stateReported_ = true;
    if (auto link = link_.lock()) link->state.store(state);
    BleCentralDelegate* delegate = delegate_;
    if (!delegate) return;
    deliver([delegate, state] { delegate->centralManagerDidUpdateState(state); });
}

void BluezEngine::startScan(bool allowDuplicates) {
    if (state_ != 5) {
        Log::logf("BluezCentral: scan requested while the state is %d; ignored", state_);
        return;
    }
    allowDuplicates_ = allowDuplicates;
    scanning_ = true;
    beginDiscovery();
}

void BluezEngine::beginDiscovery() {
    const QString adapter = adapterPath();
    discoveryAdapter_ = adapter;
    QVariantMap filter;
    filter.insert(QStringLiteral("Transport"), QStringLiteral("le"));
    filter.insert(QStringLiteral("DuplicateData"), allowDuplicates_);
    auto setFilter =
        QDBusMessage::createMethodCall(kService, adapter, kAdapter, QStringLiteral("SetDiscoveryFilter"));
    setFilter << filter;
    call(setFilter, [this, adapter](const QDBusMessage& reply) {
        if (reply.type() == QDBusMessage::ErrorMessage)
            Log::logf("BluezCentral: SetDiscoveryFilter failed: %s", utf8(errorText(reply)).constData());
        if (!scanning_ || adapter != adapterPath()) return;
        auto start =
            QDBusMessage::createMethodCall(kService, adapter, kAdapter, QStringLiteral("StartDiscovery"));
        call(start, [this](const QDBusMessage& r) {
            if (r.type() == QDBusMessage::ErrorMessage &&
                r.errorName() != QLatin1String("org.bluez.Error.InProgress")) {
                Log::logf("BluezCentral: StartDiscovery failed: %s", utf8(errorText(r)).constData());
                if (r.errorName() == QLatin1String("org.freedesktop.DBus.Error.AccessDenied")) {
                    accessDenied_ = true;  // may read the adapter, may not scan
                    recomputeState();
                }
                return;
            }
            discoveryActive_ = true;
        });
    });
}

void BluezEngine::stopScan() {
    const bool wasActive = discoveryActive_ || scanning_;
    const QString adapter = discoveryAdapter_.isEmpty() ? adapterPath() : discoveryAdapter_;
    scanning_ = false;
    discoveryActive_ = false;
    discoveryAdapter_.clear();
    if (!wasActive || adapter.isEmpty()) return;
    auto stop = QDBusMessage::createMethodCall(kService, adapter, kAdapter, QStringLiteral("StopDiscovery"));
    call(stop, [](const QDBusMessage& reply) {
        if (reply.type() == QDBusMessage::ErrorMessage)
            Log::logf("BluezCentral: StopDiscovery failed: %s", utf8(errorText(reply)).constData());
    });
}

std::shared_ptr<BluezPeripheral> BluezEngine::peripheralFor(const QString& path) {
    auto it = devices_.constFind(path);
    std::shared_ptr<BluezPeripheral>& p = peripherals_[path];
    if (!p) {
        const QString id =
            it != devices_.constEnd() ? bluez::identifierForDevice(path, it->props) : QString();
        if (id.isEmpty()) {
            peripherals_.remove(path);
            return nullptr;
        }
        p = std::make_shared<BluezPeripheral>(path, id, link_.lock());
    }
    if (it != devices_.constEnd() && it->props.name) p->setName(*it->props.name);
    return p;
}

void BluezEngine::reportAdvertisement(const QString& path) {
    if (!scanning_) return;
    auto it = devices_.constFind(path);
    if (it == devices_.constEnd()) return;
    auto peripheral = peripheralFor(path);
    if (!peripheral) {
        Log::logf("BluezCentral: device %s has no usable address; ignored", utf8(path).constData());
        return;
    }
    AdvertisementData data;
    data.localName = it->props.name;
    data.manufacturerData = it->props.manufacturerData;
    const double rssi = it->props.rssi ? double(*it->props.rssi) : 127.0;  // 127: no reading
    BleCentralDelegate* delegate = delegate_;
    if (!delegate) return;
    deliver([delegate, peripheral, data, rssi] {
        delegate->centralManagerDidDiscoverPeripheral(peripheral, data, rssi);
    });
}

void BluezEngine::connectDevice(const QString& path) {
    auto it = devices_.find(path);
    auto peripheral = peripherals_.value(path);
    if (it == devices_.end() || !peripheral) {
        Log::logf("BluezCentral: connect to unknown device %s", utf8(path).constData());
        if (peripheral) {
            BleCentralDelegate* delegate = delegate_;
            if (!delegate) return;
            deliver([delegate, peripheral] {
                delegate->centralManagerDidFailToConnectPeripheral(
                    peripheral, BleError{BluezErrorConnectionFailed, QStringLiteral("the device is gone")});
            });
        }
        return;
    }
    if (it->reportedConnected) return;
    it->connectPending = true;
    auto msg = QDBusMessage::createMethodCall(kService, path, kDevice, QStringLiteral("Connect"));
    call(msg, [this, path](const QDBusMessage& reply) {
        auto d = devices_.find(path);
        if (d == devices_.end() || !d->connectPending) return;
        if (reply.type() != QDBusMessage::ErrorMessage ||
            reply.errorName() == QLatin1String("org.bluez.Error.AlreadyConnected")) {
            reportConnected(path);
            return;
        }
        d->connectPending = false;
        Log::logf("BluezCentral: Connect %s failed: %s", utf8(path).constData(),
                  utf8(errorText(reply)).constData());
        auto peripheral = peripherals_.value(path);
        if (!peripheral) return;
        BleCentralDelegate* delegate = delegate_;
        if (!delegate) return;
        BleError error{BluezErrorConnectionFailed, errorText(reply)};
        deliver([delegate, peripheral, error] {
            delegate->centralManagerDidFailToConnectPeripheral(peripheral, error);
        });
    });
}

void BluezEngine::disconnectDevice(const QString& path) {
    auto it = devices_.find(path);
    if (it == devices_.end()) return;
    it->connectPending = false;
    if (!it->reportedConnected && !it->props.connected.value_or(false)) return;
    auto msg = QDBusMessage::createMethodCall(kService, path, kDevice, QStringLiteral("Disconnect"));
    call(msg, [path](const QDBusMessage& reply) {
        if (reply.type() == QDBusMessage::ErrorMessage)
            Log::logf("BluezCentral: Disconnect %s failed: %s", utf8(path).constData(),
                      utf8(errorText(reply)).constData());
    });
}

void BluezEngine::reportConnected(const QString& path) {
    auto d = devices_.find(path);
    if (d == devices_.end() || d->reportedConnected) return;
    d->connectPending = false;
    d->reportedConnected = true;
    d->lastServicesAnswerMs = -1;
    auto peripheral = peripherals_.value(path);
    if (!peripheral) return;
    BleCentralDelegate* delegate = delegate_;
    if (!delegate) return;
    deliver([delegate, peripheral] { delegate->centralManagerDidConnectPeripheral(peripheral); });
}

void BluezEngine::reportDisconnected(const QString& path, std::optional<int> error) {
    auto d = devices_.find(path);
    if (d != devices_.end()) {
        d->reportedConnected = false;
        d->servicesPending = false;
    }
    auto peripheral = peripherals_.value(path);
    if (!peripheral) return;
    std::optional<BleError> e;
    if (error) e = BleError{*error, QStringLiteral("disconnected (code %1)").arg(*error)};
    BleCentralDelegate* delegate = delegate_;
    if (!delegate) return;
    deliver([delegate, peripheral, e] { delegate->centralManagerDidDisconnectPeripheral(peripheral, e); });
}

void BluezEngine::readRssi(const QString& path) {
    auto peripheral = peripherals_.value(path);
    if (!peripheral) return;
    auto it = devices_.constFind(path);
    const bool connected = it != devices_.constEnd() && it->reportedConnected;
    const double rssi = it != devices_.constEnd() && it->props.rssi ? double(*it->props.rssi) : 127.0;
    std::optional<BleError> error;
    if (!connected) error = BleError{BluezErrorNotConnected, QStringLiteral("not connected")};
    deliver([peripheral, rssi, error] {
        if (auto* d = peripheral->delegate()) d->peripheralDidReadRSSI(*peripheral, rssi, error);
    });
}

void BluezEngine::discoverServices(const QString& path) {
    auto it = devices_.find(path);
    if (it == devices_.end() || !it->reportedConnected) {
        Log::logf("BluezCentral: service discovery on %s, which is not connected; ignored",
                  utf8(path).constData());
        return;
    }
    if (!it->props.servicesResolved.value_or(false)) {
        it->servicesPending = true;  // answered when ServicesResolved turns true
        return;
    }
    const double since = monotonicMs() - it->lastServicesAnswerMs;
    if (it->lastServicesAnswerMs >= 0 && since < kRediscoveryIntervalMs) {
        it->servicesPending = true;
        QTimer::singleShot(static_cast<int>(kRediscoveryIntervalMs - since) + 1, this, [this, path] {
            auto d = devices_.find(path);
            if (d != devices_.end() && d->servicesPending && d->reportedConnected) answerServices(path);
        });
        return;
    }
    answerServices(path);
}

void BluezEngine::answerServices(const QString& path) {
    auto it = devices_.find(path);
    if (it == devices_.end()) return;
    it->servicesPending = false;
    it->lastServicesAnswerMs = monotonicMs();
    auto peripheral = peripherals_.value(path);
    if (!peripheral) return;
    std::vector<BleServiceRef> list;
    for (auto s = services_.constBegin(); s != services_.constEnd(); ++s) {
        if (!bluez::isBelow(s.key(), path) || !s->props.uuid) continue;
        auto& object = serviceObjects_[s.key()];
        if (!object) object = std::make_shared<BluezService>(s.key(), BleUuid::fromString(*s->props.uuid));
        list.push_back(object);
    }
    peripheral->setServices(list);
    deliver([peripheral] {
        if (auto* d = peripheral->delegate()) d->peripheralDidDiscoverServices(*peripheral, std::nullopt);
    });
}

void BluezEngine::discoverCharacteristics(const QString& devicePath, const QString& servicePath) {
    auto peripheral = peripherals_.value(devicePath);
    auto service = serviceObjects_.value(servicePath);
    auto it = devices_.constFind(devicePath);
    if (!peripheral || !service || it == devices_.constEnd() || !it->reportedConnected) {
        Log::logf("BluezCentral: characteristic discovery for %s on a device that is not connected; ignored",
                  utf8(servicePath).constData());
        return;
    }
    std::vector<BleCharacteristicRef> list;
    for (auto c = characteristics_.constBegin(); c != characteristics_.constEnd(); ++c) {
        if (!bluez::isBelow(c.key(), servicePath) || !c->props.uuid) continue;
        auto& object = characteristicObjects_[c.key()];
        if (!object)
            object = std::make_shared<BluezCharacteristic>(c.key(), BleUuid::fromString(*c->props.uuid));
        list.push_back(object);
    }
    service->setCharacteristics(list);
    BleServiceRef ref = service;
    deliver([peripheral, ref] {
        if (auto* d = peripheral->delegate())
            d->peripheralDidDiscoverCharacteristicsForService(*peripheral, ref, std::nullopt);
    });
}

void BluezEngine::readValue(const QString& devicePath, const QString& characteristicPath) {
    auto peripheral = peripherals_.value(devicePath);
    auto characteristic = characteristicObjects_.value(characteristicPath);
    if (!peripheral || !characteristic) {
        Log::logf("BluezCentral: read of unknown characteristic %s ignored",
                  utf8(characteristicPath).constData());
        return;
    }
    auto msg = QDBusMessage::createMethodCall(kService, characteristicPath, kGattCharacteristic,
                                              QStringLiteral("ReadValue"));
    msg << QVariantMap();
    call(msg, [this, peripheral, characteristic](const QDBusMessage& reply) {
        std::optional<BleError> error;
        if (reply.type() == QDBusMessage::ErrorMessage) {
            error = BleError{bluez::errorCodeForDBusError(reply.errorName()), errorText(reply)};
        } else if (reply.signature() != QLatin1String("ay")) {
            error =
                BleError{BluezErrorUnknown,
                         QStringLiteral("ReadValue answered with signature \"%1\"").arg(reply.signature())};
        } else {
            characteristic->setValue(reply.arguments().at(0).toByteArray());
        }
        if (error)
            Log::logf("BluezCentral: ReadValue %s failed: %s", utf8(characteristic->path()).constData(),
                      utf8(error->description).constData());
        BleCharacteristicRef ref = characteristic;
        deliver([peripheral, ref, error] {
            if (auto* d = peripheral->delegate())
                d->peripheralDidUpdateValueForCharacteristic(*peripheral, ref, error);
        });
    });
}

void BluezEngine::call(const QDBusMessage& message, std::function<void(const QDBusMessage&)> done,
                       int timeoutMs) {
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(message, timeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [done = std::move(done)](QDBusPendingCallWatcher* w) {
                w->deleteLater();
                done(w->reply());
            });
}

void BluezEngine::deliver(std::function<void()> fn) {
    if (auto link = link_.lock()) link->deliver(std::move(fn));
}

void BluezEngine::logProblems(const QString& path, const QString& interface, const QStringList& problems) {
    for (const QString& p : problems)
        Log::logf("BluezCentral: %s on %s: %s; ignored", utf8(interface).constData(), utf8(path).constData(),
                  utf8(p).constData());
}

double BluezEngine::monotonicMs() const {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace lumerix
