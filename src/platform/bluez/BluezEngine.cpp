#include "platform/bluez/BluezEngine.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>

#include "ble/ScanDemand.h"
#include "log/Log.h"
#include "platform/bluez/BluezInterfaces.h"
#include "platform/bluez/BluezLink.h"

namespace lumerix {
namespace {

using bluez::Adapter1;
using bluez::Device1;
using bluez::GattCharacteristic1;
using bluez::GattService1;
using bluez::ObjectManager;

const QString kAdapter = QString::fromLatin1(Adapter1::kInterface);
const QString kDevice = QString::fromLatin1(Device1::kInterface);
const QString kGattService = QString::fromLatin1(GattService1::kInterface);
const QString kGattCharacteristic = QString::fromLatin1(GattCharacteristic1::kInterface);
const QString kMediaTransport = QStringLiteral("org.bluez.MediaTransport1");

// The narrowest rules the bus offers: org.bluez's own signals, below /org/bluez, per interface.
constexpr const char* kMatchInterfacesAdded =
    "type='signal',sender='org.bluez',path='/',interface='org.freedesktop.DBus.ObjectManager',"
    "member='InterfacesAdded'";
constexpr const char* kMatchInterfacesRemoved =
    "type='signal',sender='org.bluez',path='/',interface='org.freedesktop.DBus.ObjectManager',"
    "member='InterfacesRemoved'";
constexpr const char* kMatchDeviceProperties =
    "type='signal',sender='org.bluez',path_namespace='/org/"
    "bluez',interface='org.freedesktop.DBus.Properties',"
    "member='PropertiesChanged',arg0='org.bluez.Device1'";
constexpr const char* kMatchAdapterProperties =
    "type='signal',sender='org.bluez',path_namespace='/org/"
    "bluez',interface='org.freedesktop.DBus.Properties',"
    "member='PropertiesChanged',arg0='org.bluez.Adapter1'";
constexpr const char* kMatchTransportProperties =
    "type='signal',sender='org.bluez',path_namespace='/org/"
    "bluez',interface='org.freedesktop.DBus.Properties',"
    "member='PropertiesChanged',arg0='org.bluez.MediaTransport1'";
constexpr const char* kMatchDeviceDisconnected =
    "type='signal',sender='org.bluez',path_namespace='/org/bluez',interface='org.bluez.Device1',"
    "member='Disconnected'";
constexpr const char* kMatchNameOwner =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/"
    "DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0='org.bluez'";

QByteArray utf8(const QString& s) { return s.toUtf8(); }

}  // namespace

BluezEngine::BluezEngine(BleCentralDelegate* delegate, const std::shared_ptr<BluezLink>& link,
                         std::optional<QString> onlyLocalName, std::shared_ptr<ScanDemand> demand)
    : delegate_(delegate),
      link_(link),
      onlyLocalName_(std::move(onlyLocalName)),
      discovery_(queue_, std::move(demand), onlyLocalName_.value_or(QString())),
      gatt_(
          queue_, delegate, devices_, [this](const QString& path) { return peripherals_.value(path); },
          [this](std::function<void()> fn) { deliver(std::move(fn)); }) {
    discovery_.onAccessDenied = [this] {
        accessDenied_ = true;  // may read the adapter, may not scan
        recomputeState();
    };
    // Launch (and wake, which makes a new central): look without pause for a while.
    discovery_.boost();
}

BluezEngine::~BluezEngine() {
    // Slots first, then the connection: closing it also ends any discovery session bluetoothd
    // keeps for it, and drops calls still waiting for their replies.
    discovery_.setBus(nullptr);
    gatt_.setBus(nullptr);
    matches_.clear();
    bus_.reset();
}

// --- the intake loop ----------------------------------------------------------------------------

void BluezEngine::run(const std::atomic<bool>& stop) {
    start();
    auto link = link_.lock();
    if (!link) return;
    double lastDrainMs = -kCoalescingIntervalMs;
    while (!stop.load()) {
        const bool more = drain();
        for (auto& command : link->takeCommands()) command(*this);
        queue_.runDue();
        flush();
        lastDrainMs = monotonicMs();
        if (stop.load()) break;
        if (more) continue;  // behind: no waiting until the backlog is gone

        pollfd fds[2] = {{link->wakeFd(), POLLIN, 0}, {-1, 0, 0}};
        nfds_t count = 1;
        if (bus_) {
            fds[1] = {sd_bus_get_fd(bus_.get()), static_cast<short>(sd_bus_get_events(bus_.get())), 0};
            count = 2;
        }
        if (poll(fds, count, waitTimeoutMs()) < 0 && errno != EINTR) {
            Log::logf("BluezCentral: poll failed: %s", std::strerror(errno));
            return;
        }
        if (count == 2 && (fds[1].revents & POLLIN) && !(fds[0].revents & POLLIN)) {
            // Let the burst gather; a command or the stop request cuts the wait short.
            const double rest = lastDrainMs + kCoalescingIntervalMs - monotonicMs();
            if (rest > 0) {
                pollfd wake{link->wakeFd(), POLLIN, 0};
                poll(&wake, 1, static_cast<int>(std::ceil(rest)));
            }
        }
    }
    // Commands posted before the central went away still go out; closing the connection
    // flushes them.
    for (auto& command : link->takeCommands()) command(*this);
}

bool BluezEngine::drain() {
    if (!bus_) return false;
    int r = 0;
    for (int n = 0; n < kMaxMessagesPerDrain; ++n) {
        r = sd_bus_process(bus_.get(), nullptr);
        if (r <= 0) break;
    }
    if (r < 0) {
        Log::logf("BluezCentral: the system bus connection failed: %s", std::strerror(-r));
        discovery_.setBus(nullptr);
        gatt_.setBus(nullptr);
        matches_.clear();
        bus_.reset();
        bluezGone();
        reconnectLater();
        return false;
    }
    return r > 0;
}

int BluezEngine::waitTimeoutMs() const {
    double until = queue_.msUntilNext();
    if (bus_) {
        uint64_t usec = 0;
        if (sd_bus_get_timeout(bus_.get(), &usec) > 0 && usec != UINT64_MAX) {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            const double nowUs = double(now.tv_sec) * 1e6 + double(now.tv_nsec) / 1e3;
            const double busMs = std::max(0.0, (double(usec) - nowUs) / 1000.0);
            until = until < 0 ? busMs : std::min(until, busMs);
        }
    }
    return until < 0 ? -1 : static_cast<int>(std::ceil(until));
}

void BluezEngine::flush() {
    if (pending_.empty()) return;
    std::vector<std::function<void()>> callbacks;
    callbacks.reserve(pending_.size());
    BleCentralDelegate* delegate = delegate_;
    for (Delivery& d : pending_) {
        if (d.callback) {
            callbacks.push_back(std::move(d.callback));
        } else if (delegate) {
            callbacks.emplace_back([delegate, batch = std::move(d.advertisements)] {
                delegate->centralManagerDidDiscoverPeripherals(batch);
            });
        }
    }
    pending_.clear();
    if (auto link = link_.lock()) link->deliver(std::move(callbacks));
}

void BluezEngine::deliver(std::function<void()> fn) { pending_.push_back({std::move(fn), {}}); }

// --- connection and subscriptions ---------------------------------------------------------------

void BluezEngine::start() {
    QString error;
    bus_ = sdbus::openSystemBus(&error);
    if (!bus_) {
        if (!busLost_) Log::logf("BluezCentral: cannot reach the system bus: %s", utf8(error).constData());
        snapshotDone_ = true;
        recomputeState();
        reconnectLater();
        return;
    }
    if (busLost_) Log::logf("BluezCentral: connected to the system bus again");
    busLost_ = false;
    reconnectMs_ = kReconnectMs;
    discovery_.setBus(bus_.get());
    gatt_.setBus(bus_.get());
    // Subscribe before the snapshot so that nothing falls between the two.
    if (!subscribe()) Log::logf("BluezCentral: could not subscribe to every org.bluez signal");
    takeSnapshot();
}

void BluezEngine::reconnectLater() {
    // Logged once per outage; the attempts go on quietly, less and less often.
    busLost_ = true;
    const double delay = reconnectMs_;
    reconnectMs_ = std::min(kMaxReconnectMs, reconnectMs_ * 2);
    queue_.after(delay, [this] {
        if (!bus_) start();
    });
}

bool BluezEngine::subscribe() {
    struct Rule {
        const char* match;
        sd_bus_message_handler_t handler;
    };
    const Rule rules[] = {
        {kMatchNameOwner, &BluezEngine::onNameOwnerChanged},
        {kMatchInterfacesAdded, &BluezEngine::onInterfacesAdded},
        {kMatchInterfacesRemoved, &BluezEngine::onInterfacesRemoved},
        {kMatchAdapterProperties, &BluezEngine::onAdapterPropertiesChanged},
        {kMatchTransportProperties, &BluezEngine::onTransportPropertiesChanged},
        {kMatchDeviceProperties, &BluezEngine::onDevicePropertiesChanged},
        {kMatchDeviceDisconnected, &BluezEngine::onDeviceDisconnected},
    };
    bool ok = true;
    for (const Rule& rule : rules) {
        sd_bus_slot* slot = nullptr;
        if (sd_bus_add_match(bus_.get(), &slot, rule.match, rule.handler, this) < 0) {
            ok = false;
            continue;
        }
        matches_.emplace_back(slot);
    }
    return ok;
}

int BluezEngine::onNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    auto* engine = static_cast<BluezEngine*>(self);
    if (newOwner && *newOwner) {
        Log::logf("BluezCentral: org.bluez appeared on the system bus");
        engine->takeSnapshot();
    } else {
        Log::logf("BluezCentral: org.bluez left the system bus");
        engine->bluezGone();
    }
    return 0;
}

void BluezEngine::bluezGone() {
    ++snapshotGeneration_;
    snapshotDone_ = true;
    bluezPresent_ = false;
    accessDenied_ = false;
    clearObjects(BluezErrorPeripheralDisconnected);
    recomputeState();
}

void BluezEngine::takeSnapshot() {
    const quint64 generation = ++snapshotGeneration_;
    if (!ObjectManager::getManagedObjects(bus_.get(), [this, generation](const bluez::Snapshot& snapshot) {
            onSnapshot(generation, snapshot);
        }))
        Log::logf("BluezCentral: could not ask org.bluez for its objects");
}

void BluezEngine::onSnapshot(quint64 generation, const bluez::Snapshot& snapshot) {
    if (generation != snapshotGeneration_) return;  // an owner change made it stale
    snapshotDone_ = true;
    if (!snapshot.reached) {
        accessDenied_ = snapshot.accessDenied;
        bluezPresent_ = accessDenied_;
        if (!accessDenied_)
            Log::logf("BluezCentral: org.bluez is not available (%s)", utf8(snapshot.error).constData());
        else
            Log::logf("BluezCentral: access to org.bluez denied (%s)", utf8(snapshot.error).constData());
        clearObjects(BluezErrorPeripheralDisconnected);
        recomputeState();
        return;
    }
    bluezPresent_ = true;
    accessDenied_ = false;
    if (!snapshot.error.isEmpty()) Log::logf("BluezCentral: %s; ignored", utf8(snapshot.error).constData());

    // Keep what is known of devices that are still there (their connections too); drop the rest.
    QHash<QString, BluezDeviceProperties> previous;
    previous.swap(devices_);
    paths_.clear();
    adapters_.clear();
    transports_.clear();
    gatt_.forgetProperties();
    for (auto it = snapshot.objects.constBegin(); it != snapshot.objects.constEnd(); ++it) {
        const QString& path = it.key();
        if (previous.contains(path)) devices_.insert(path, previous.value(path));
        const auto ad = snapshot.advertisements.constFind(path);
        addInterfaces(path, it.value(), false, ad != snapshot.advertisements.constEnd() ? &*ad : nullptr);
    }
    for (auto it = previous.constBegin(); it != previous.constEnd(); ++it) {
        if (devices_.contains(it.key())) continue;
        gatt_.deviceRemoved(it.key(), BluezErrorPeripheralDisconnected);
        forgetPeripheral(it.key());
    }
    audioMayHaveChanged();
    recomputeState();
}

void BluezEngine::clearObjects(int disconnectError) {
    const QStringList paths = devices_.keys();
    for (const QString& path : paths) removeDevice(path, disconnectError);
    paths_.clear();
    adapters_.clear();
    transports_.clear();
    gatt_.clear();
    audioMayHaveChanged();
}

// --- signals ------------------------------------------------------------------------------------

int BluezEngine::onInterfacesAdded(sd_bus_message* m, void* self, sd_bus_error*) {
    QString path;
    bluez::InterfaceMap interfaces;
    BluezAdvertisement advertisement;
    if (!ObjectManager::readInterfacesAdded(m, &path, &interfaces, &advertisement)) {
        Log::logf("BluezCentral: InterfacesAdded with signature \"%s\" ignored", sdbus::signature(m));
        return 0;
    }
    static_cast<BluezEngine*>(self)->addInterfaces(path, interfaces, true, &advertisement);
    return 0;
}

int BluezEngine::onInterfacesRemoved(sd_bus_message* m, void* self, sd_bus_error*) {
    QString path;
    QStringList interfaces;
    if (!ObjectManager::readInterfacesRemoved(m, &path, &interfaces)) {
        Log::logf("BluezCentral: InterfacesRemoved with signature \"%s\" ignored", sdbus::signature(m));
        return 0;
    }
    auto* e = static_cast<BluezEngine*>(self);
    if (interfaces.contains(kAdapter)) {
        e->adapters_.remove(path);
        e->recomputeState();
    }
    if (interfaces.contains(kDevice)) e->removeDevice(path, BluezErrorPeripheralDisconnected);
    if (interfaces.contains(kMediaTransport) && e->transports_.remove(path)) e->audioMayHaveChanged();
    if (interfaces.contains(kGattService)) e->gatt_.removeService(path);
    if (interfaces.contains(kGattCharacteristic)) e->gatt_.removeCharacteristic(path);
    return 0;
}

int BluezEngine::onAdapterPropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    auto* e = static_cast<BluezEngine*>(self);
    const QString path = QString::fromUtf8(sd_bus_message_get_path(m));
    const char* iface = nullptr;
    QVariantMap changed;
    QStringList invalidated;
    if (std::string_view(sdbus::signature(m)) != "sa{sv}as" ||
        sd_bus_message_read_basic(m, 's', &iface) < 0 || !sdbus::readPropertyMap(m, &changed) ||
        !sdbus::readStringArray(m, &invalidated)) {
        Log::logf("BluezCentral: PropertiesChanged with signature \"%s\" on %s ignored", sdbus::signature(m),
                  utf8(path).constData());
        return 0;
    }
    if (!e->adapters_.contains(path))
        return 0;  // not announced yet; the snapshot or InterfacesAdded brings it
    e->logProblems(path, kAdapter, e->adapters_[path].apply(changed, invalidated));
    e->recomputeState();
    return 0;
}

int BluezEngine::onTransportPropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    auto* e = static_cast<BluezEngine*>(self);
    const QString path = QString::fromUtf8(sd_bus_message_get_path(m));
    const char* iface = nullptr;
    QVariantMap changed;
    QStringList invalidated;
    if (std::string_view(sdbus::signature(m)) != "sa{sv}as" ||
        sd_bus_message_read_basic(m, 's', &iface) < 0 || !sdbus::readPropertyMap(m, &changed) ||
        !sdbus::readStringArray(m, &invalidated))
        return 0;
    if (!e->transports_.contains(path)) return 0;  // the snapshot or InterfacesAdded brings it
    e->noteTransport(path, changed);
    return 0;
}

void BluezEngine::noteTransport(const QString& path, const QVariantMap& changed) {
    const auto state = changed.constFind(QStringLiteral("State"));
    if (state != changed.constEnd())
        transports_[path] =
            state->typeId() == QMetaType::QString && state->toString() == QLatin1String("active");
    else if (!transports_.contains(path))
        transports_.insert(path, false);
    audioMayHaveChanged();
}

void BluezEngine::audioMayHaveChanged() {
    bool active = false;
    for (const bool a : std::as_const(transports_)) active = active || a;
    if (active == audioActive_) return;
    audioActive_ = active;
    Log::logf("BluezCentral: Bluetooth audio %s",
              active ? "active: discovery only while someone looks" : "idle");
    discovery_.setAudioActive(active);
}

int BluezEngine::onDevicePropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    static_cast<BluezEngine*>(self)->devicePropertiesChanged(m);
    return 0;
}

void BluezEngine::devicePropertiesChanged(sd_bus_message* m) {
    const char* rawPath = sd_bus_message_get_path(m);
    const char* sig = sd_bus_message_get_signature(m, 1);
    const char* iface = nullptr;
    if (!rawPath || std::string_view(sig ? sig : "") != "sa{sv}as" ||
        sd_bus_message_read_basic(m, 's', &iface) < 0) {
        Log::logf("BluezCentral: PropertiesChanged with signature \"%s\" on %s ignored", sig ? sig : "",
                  rawPath ? rawPath : "");
        return;
    }
    // A device the filter ignores: its advertisements are skipped unread; only other changes
    // (a new Name, the connection) are taken.
    const auto known = paths_.find(std::string_view(rawPath));
    const bool ignored = known != paths_.end() && known->second.ignored;
    Device1::Advertisement advertisement;
    QVariantMap changed;
    QStringList invalidated;
    if (!Device1::readChanges(m, ignored, &advertisement, &changed) ||
        !sdbus::readStringArray(m, &invalidated)) {
        Log::logf("BluezCentral: malformed PropertiesChanged on %s ignored", rawPath);
        return;
    }
    if (ignored && changed.isEmpty() && invalidated.isEmpty()) return;
    const QString path = known != paths_.end() ? known->second.path : QString::fromUtf8(rawPath);
    updateDevice(path, changed, invalidated, true, &advertisement);
    if (advertisement.hasRssi || advertisement.hasManufacturerData ||
        changed.contains(QStringLiteral("RSSI")) || changed.contains(QStringLiteral("ManufacturerData")))
        reportAdvertisement(path);
}

int BluezEngine::onDeviceDisconnected(sd_bus_message* m, void* self, sd_bus_error*) {
    // Device1.Disconnected(reason, message) comes just before Connected turns false.
    auto* e = static_cast<BluezEngine*>(self);
    const QString reason = Device1::disconnectedReason(m);
    if (reason.isEmpty()) return 0;
    e->gatt_.noteDisconnectReason(QString::fromUtf8(sd_bus_message_get_path(m)), reason);
    return 0;
}

// --- the object cache ---------------------------------------------------------------------------

void BluezEngine::addInterfaces(const QString& path, const bluez::InterfaceMap& interfaces, bool fromSignal,
                                const BluezAdvertisement* advertisement) {
    for (auto it = interfaces.constBegin(); it != interfaces.constEnd(); ++it) {
        const QString& iface = it.key();
        if (iface == kAdapter) {
            logProblems(path, iface, adapters_[path].apply(it.value()));
        } else if (iface == kDevice) {
            updateDevice(path, it.value(), {}, fromSignal, advertisement);
            if (fromSignal) reportAdvertisement(path);
        } else if (iface == kGattService) {
            logProblems(path, iface, gatt_.applyService(path, it.value()));
        } else if (iface == kGattCharacteristic) {
            logProblems(path, iface, gatt_.applyCharacteristic(path, it.value()));
        } else if (iface == kMediaTransport) {
            noteTransport(path, it.value());
        }
    }
    if (fromSignal && interfaces.contains(kAdapter)) recomputeState();
}

void BluezEngine::noteName(const QString& path, const BluezDeviceProperties& device) {
    KnownPath& known = paths_[path.toStdString()];
    known.path = path;
    known.ignored = onlyLocalName_ && device.name && *device.name != *onlyLocalName_;
}

void BluezEngine::updateDevice(const QString& path, const QVariantMap& changed,
                               const QStringList& invalidated, bool fromSignal,
                               const BluezAdvertisement* advertisement) {
    const bool isNew = !devices_.contains(path);
    BluezDeviceProperties& device = devices_[path];
    const bool wasConnected = device.connected.value_or(false);
    const bool wasResolved = device.servicesResolved.value_or(false);
    logProblems(path, kDevice,
                device.apply(changed, invalidated, advertisement ? *advertisement : BluezAdvertisement{}));
    if (isNew || !fromSignal || changed.contains(QStringLiteral("Name")) ||
        invalidated.contains(QStringLiteral("Name")))
        noteName(path, device);
    if (device.name) peripheralFor(path);  // keeps the peripheral's name current
    if (!fromSignal) return;
    // Services of a dropped connection are not resolved any more, whatever came last.
    if (wasConnected && !device.connected.value_or(false)) device.servicesResolved = false;
    gatt_.deviceChanged(path, wasConnected, wasResolved);
}

void BluezEngine::removeDevice(const QString& path, int disconnectError) {
    if (!devices_.remove(path)) return;
    paths_.erase(path.toStdString());
    gatt_.deviceRemoved(path, disconnectError);
    forgetPeripheral(path);
}

void BluezEngine::forgetPeripheral(const QString& path) {
    auto p = peripherals_.find(path);
    if (p == peripherals_.end()) return;
    // The object stays while an item still holds it, so a device that returns keeps its identity.
    const bool onlyHere = p->use_count() == 1;
    std::shared_ptr<BluezPeripheral> peripheral = *p;
    if (onlyHere) peripherals_.erase(p);
    BleCentralDelegate* delegate = delegate_;
    if (!delegate) return;
    deliver([delegate, peripheral] { delegate->centralManagerDidForgetPeripheral(peripheral); });
}

QString BluezEngine::adapterPath() const { return bluez::defaultAdapterPath(adapters_.keys()); }

void BluezEngine::recomputeState() {
    if (!snapshotDone_) return;
    const QString adapter = adapterPath();
    std::optional<BluezAdapterProperties> props;
    if (!adapter.isEmpty()) props = adapters_.value(adapter);
    const int state = bluez::centralState(bluezPresent_, accessDenied_, props);
    if (state == BleStatePoweredOn && discovery_.scanning())
        discovery_.moveTo(adapter);  // new default adapter
    if (stateReported_ && state == state_) return;
    if (state != BleStatePoweredOn) discovery_.lost();
    // Bluetooth back (power, adapter, bluetoothd): look without pause for a while.
    if (state == BleStatePoweredOn && stateReported_) discovery_.boost();
    Log::logf("BluezCentral: state %d (%s)", state, utf8(adapter).constData());
    state_ = state;
    stateReported_ = true;
    if (auto link = link_.lock()) link->state.store(state);
    BleCentralDelegate* delegate = delegate_;
    if (!delegate) return;
    deliver([delegate, state] { delegate->centralManagerDidUpdateState(state); });
}

// --- scanning -----------------------------------------------------------------------------------

void BluezEngine::startScan(bool allowDuplicates) {
    if (state_ != BleStatePoweredOn) {
        Log::logf("BluezCentral: scan requested while the state is %d; ignored", state_);
        return;
    }
    discovery_.start(adapterPath(), allowDuplicates);
}

void BluezEngine::stopScan() { discovery_.stop(); }

void BluezEngine::demandChanged() { discovery_.demandChanged(); }

std::shared_ptr<BluezPeripheral> BluezEngine::peripheralFor(const QString& path) {
    auto it = devices_.constFind(path);
    std::shared_ptr<BluezPeripheral>& p = peripherals_[path];
    if (!p) {
        const QString id = it != devices_.constEnd() ? bluez::identifierForDevice(path, *it) : QString();
        if (id.isEmpty()) {
            peripherals_.remove(path);
            return nullptr;
        }
        p = std::make_shared<BluezPeripheral>(path, id, link_.lock());
    }
    if (it != devices_.constEnd() && it->name && p->name() != *it->name) p->setName(*it->name);
    return p;
}

void BluezEngine::reportAdvertisement(const QString& path) {
    if (!discovery_.scanning()) return;
    auto it = devices_.constFind(path);
    if (it == devices_.constEnd()) return;
    if (onlyLocalName_ && it->name && *it->name != *onlyLocalName_) return;
    auto peripheral = peripheralFor(path);
    if (!peripheral) {
        Log::logf("BluezCentral: device %s has no usable address; ignored", utf8(path).constData());
        return;
    }
    const double rssi = it->rssi ? double(*it->rssi) : kRssiNoReading;
    if (pending_.empty() || pending_.back().callback) pending_.push_back({});
    pending_.back().advertisements.push_back(
        BleDiscovery{std::move(peripheral), AdvertisementData{it->name, it->manufacturerData}, rssi});
}

// --- connections and GATT -----------------------------------------------------------------------

void BluezEngine::connectDevice(const QString& path) { gatt_.connectDevice(path); }
void BluezEngine::disconnectDevice(const QString& path) { gatt_.disconnectDevice(path); }
void BluezEngine::readRssi(const QString& path) { gatt_.readRssi(path); }
void BluezEngine::discoverServices(const QString& path) { gatt_.discoverServices(path); }
void BluezEngine::discoverCharacteristics(const QString& devicePath, const QString& servicePath) {
    gatt_.discoverCharacteristics(devicePath, servicePath);
}
void BluezEngine::readValue(const QString& devicePath, const QString& characteristicPath) {
    gatt_.readValue(devicePath, characteristicPath);
}

void BluezEngine::logProblems(const QString& path, const QString& interface, const QStringList& problems) {
    for (const QString& p : problems)
        Log::logf("BluezCentral: %s on %s: %s; ignored", utf8(interface).constData(), utf8(path).constData(),
                  utf8(p).constData());
}

double BluezEngine::monotonicMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace lumerix
