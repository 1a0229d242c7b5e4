#include "platform/bluez/ObjectCache.h"

#include "log/Log.h"
#include "platform/bluez/BluezInterfaces.h"
#include "platform/bluez/GattClient.h"

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

// The body of a PropertiesChanged signal (interface, changed, invalidated); false, logged, when it
// has another shape.
bool readPropertiesChanged(sd_bus_message* m, const QString& path, QVariantMap* changed,
                           QStringList* invalidated) {
    const char* iface = nullptr;
    if (std::string_view(sdbus::signature(m)) == "sa{sv}as" &&
        sd_bus_message_read_basic(m, 's', &iface) >= 0 && sdbus::readPropertyMap(m, changed) &&
        sdbus::readStringArray(m, invalidated))
        return true;
    Log::logf("BluezCentral: PropertiesChanged with signature \"%s\" on %s ignored", sdbus::signature(m),
              qUtf8Printable(path));
    return false;
}

}  // namespace

// --- subscriptions and the snapshot -------------------------------------------------------------

ObjectCache::ObjectCache(GattClient& gatt, std::optional<QString> onlyLocalName)
    : gatt_(&gatt), onlyLocalName_(std::move(onlyLocalName)) {}

bool ObjectCache::attach(sd_bus* bus) {
    bus_ = bus;
    struct Rule {
        const char* match;
        sd_bus_message_handler_t handler;
    };
    const Rule rules[] = {
        {kMatchNameOwner, &ObjectCache::onNameOwnerChanged},
        {kMatchInterfacesAdded, &ObjectCache::onInterfacesAdded},
        {kMatchInterfacesRemoved, &ObjectCache::onInterfacesRemoved},
        {kMatchAdapterProperties, &ObjectCache::onAdapterPropertiesChanged},
        {kMatchTransportProperties, &ObjectCache::onTransportPropertiesChanged},
        {kMatchDeviceProperties, &ObjectCache::onDevicePropertiesChanged},
        {kMatchDeviceDisconnected, &ObjectCache::onDeviceDisconnected},
    };
    bool ok = true;
    for (const Rule& rule : rules) {
        sd_bus_slot* slot = nullptr;
        // Asynchronous: the intake never waits on its own connection (BusRelay feeds it). The
        // bus daemon takes the rules before the snapshot's call, which is sent after them.
        if (sd_bus_add_match_async(bus, &slot, rule.match, rule.handler, &ObjectCache::onMatchInstalled,
                                   this) < 0) {
            ok = false;
            continue;
        }
        matches_.emplace_back(slot);
    }
    return ok;
}

int ObjectCache::onMatchInstalled(sd_bus_message* m, void* /*self*/, sd_bus_error* /*error*/) {
    if (const sd_bus_error* e = sd_bus_message_get_error(m))
        Log::logf("BluezCentral: could not subscribe to every org.bluez signal (%s)", e->name ? e->name : "");
    return 0;
}

void ObjectCache::detach() {
    matches_.clear();
    bus_ = nullptr;
}

void ObjectCache::setAccessDenied() {
    accessDenied_ = true;
    onStateInputs();
}

void ObjectCache::settleWithoutBus() {
    snapshotDone_ = true;
    onStateInputs();
}

int ObjectCache::centralState() const {
    const QString adapter = adapterPath();
    std::optional<BluezAdapterProperties> props;
    if (!adapter.isEmpty()) props = adapters_.value(adapter);
    return bluez::centralState(bluezPresent_, accessDenied_, props);
}

int ObjectCache::onNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    auto* cache = static_cast<ObjectCache*>(self);
    if (newOwner && *newOwner) {
        Log::logf("BluezCentral: org.bluez appeared on the system bus");
        cache->takeSnapshot();
    } else {
        Log::logf("BluezCentral: org.bluez left the system bus");
        cache->bluezGone();
    }
    return 0;
}

void ObjectCache::bluezGone() {
    ++snapshotGeneration_;
    snapshotDone_ = true;
    bluezPresent_ = false;
    accessDenied_ = false;
    clearObjects(BluezErrorPeripheralDisconnected);
    onStateInputs();
}

void ObjectCache::takeSnapshot() {
    const quint64 generation = ++snapshotGeneration_;
    if (!ObjectManager::getManagedObjects(
            bus_, [this, generation](const bluez::Snapshot& snapshot) { onSnapshot(generation, snapshot); }))
        Log::logf("BluezCentral: could not ask org.bluez for its objects");
}

void ObjectCache::onSnapshot(quint64 generation, const bluez::Snapshot& snapshot) {
    if (generation != snapshotGeneration_) return;  // an owner change made it stale
    snapshotDone_ = true;
    if (!snapshot.reached) {
        accessDenied_ = snapshot.accessDenied;
        bluezPresent_ = accessDenied_;
        if (!accessDenied_)
            Log::logf("BluezCentral: org.bluez is not available (%s)", qUtf8Printable(snapshot.error));
        else
            Log::logf("BluezCentral: access to org.bluez denied (%s)", qUtf8Printable(snapshot.error));
        clearObjects(BluezErrorPeripheralDisconnected);
        onStateInputs();
        return;
    }
    bluezPresent_ = true;
    accessDenied_ = false;
    if (!snapshot.error.isEmpty()) Log::logf("BluezCentral: %s; ignored", qUtf8Printable(snapshot.error));

    // Keep what is known of devices that are still there (their connections too); drop the rest.
    QHash<QString, BluezDeviceProperties> previous;
    previous.swap(devices_);
    paths_.clear();
    adapters_.clear();
    transports_.clear();
    gatt_->forgetProperties();
    for (auto it = snapshot.objects.constBegin(); it != snapshot.objects.constEnd(); ++it) {
        const QString& path = it.key();
        if (previous.contains(path)) devices_.insert(path, previous.value(path));
        const auto ad = snapshot.advertisements.constFind(path);
        addInterfaces(path, it.value(), false, ad != snapshot.advertisements.constEnd() ? &*ad : nullptr);
    }
    for (auto it = previous.constBegin(); it != previous.constEnd(); ++it) {
        if (devices_.contains(it.key())) continue;
        gatt_->deviceRemoved(it.key(), BluezErrorPeripheralDisconnected);
        onDeviceGone(it.key());
    }
    audioMayHaveChanged();
    onStateInputs();
}

void ObjectCache::clearObjects(int disconnectError) {
    const QStringList paths = devices_.keys();
    for (const QString& path : paths) removeDevice(path, disconnectError);
    paths_.clear();
    adapters_.clear();
    transports_.clear();
    gatt_->clear();
    audioMayHaveChanged();
}

// --- signals ------------------------------------------------------------------------------------

int ObjectCache::onInterfacesAdded(sd_bus_message* m, void* self, sd_bus_error*) {
    QString path;
    bluez::InterfaceMap interfaces;
    BluezAdvertisement advertisement;
    if (!ObjectManager::readInterfacesAdded(m, &path, &interfaces, &advertisement)) {
        Log::logf("BluezCentral: InterfacesAdded with signature \"%s\" ignored", sdbus::signature(m));
        return 0;
    }
    static_cast<ObjectCache*>(self)->addInterfaces(path, interfaces, true, &advertisement);
    return 0;
}

int ObjectCache::onInterfacesRemoved(sd_bus_message* m, void* self, sd_bus_error*) {
    QString path;
    QStringList interfaces;
    if (!ObjectManager::readInterfacesRemoved(m, &path, &interfaces)) {
        Log::logf("BluezCentral: InterfacesRemoved with signature \"%s\" ignored", sdbus::signature(m));
        return 0;
    }
    auto* e = static_cast<ObjectCache*>(self);
    if (interfaces.contains(kAdapter)) {
        e->adapters_.remove(path);
        e->onStateInputs();
    }
    if (interfaces.contains(kDevice)) e->removeDevice(path, BluezErrorPeripheralDisconnected);
    if (interfaces.contains(kMediaTransport) && e->transports_.remove(path)) e->audioMayHaveChanged();
    if (interfaces.contains(kGattService)) e->gatt_->removeService(path);
    if (interfaces.contains(kGattCharacteristic)) e->gatt_->removeCharacteristic(path);
    return 0;
}

int ObjectCache::onAdapterPropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    auto* e = static_cast<ObjectCache*>(self);
    const QString path = QString::fromUtf8(sd_bus_message_get_path(m));
    QVariantMap changed;
    QStringList invalidated;
    if (!readPropertiesChanged(m, path, &changed, &invalidated)) return 0;
    if (!e->adapters_.contains(path))
        return 0;  // not announced yet; the snapshot or InterfacesAdded brings it
    logProblems(path, kAdapter, e->adapters_[path].apply(changed, invalidated));
    e->onStateInputs();
    return 0;
}

int ObjectCache::onTransportPropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    auto* e = static_cast<ObjectCache*>(self);
    const QString path = QString::fromUtf8(sd_bus_message_get_path(m));
    QVariantMap changed;
    QStringList invalidated;
    if (!readPropertiesChanged(m, path, &changed, &invalidated)) return 0;
    if (!e->transports_.contains(path)) return 0;  // the snapshot or InterfacesAdded brings it
    e->noteTransport(path, changed);
    return 0;
}

void ObjectCache::noteTransport(const QString& path, const QVariantMap& changed) {
    const auto state = changed.constFind(QStringLiteral("State"));
    if (state != changed.constEnd())
        transports_[path] =
            state->typeId() == QMetaType::QString && state->toString() == QLatin1String("active");
    else if (!transports_.contains(path))
        transports_.insert(path, false);
    audioMayHaveChanged();
}

void ObjectCache::audioMayHaveChanged() {
    bool active = false;
    for (const bool a : std::as_const(transports_)) active = active || a;
    if (active == audioActive_) return;
    audioActive_ = active;
    Log::logf("BluezCentral: Bluetooth audio %s",
              active ? "active: discovery only while someone looks" : "idle");
    onAudio(active);
}

int ObjectCache::onDevicePropertiesChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    static_cast<ObjectCache*>(self)->devicePropertiesChanged(m);
    return 0;
}

void ObjectCache::devicePropertiesChanged(sd_bus_message* m) {
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
    applyDeviceChanges(known, rawPath, advertisement, changed, invalidated);
}

void ObjectCache::deviceAdvertised(std::string_view rawPath, const BluezAdvertisement& advertisement) {
    const auto known = paths_.find(rawPath);
    if (known != paths_.end() && known->second.ignored) return;  // only its advertisement changed
    applyDeviceChanges(known, rawPath, advertisement, {}, {});
}

void ObjectCache::applyDeviceChanges(KnownPaths::const_iterator known, std::string_view rawPath,
                                     const BluezAdvertisement& advertisement, const QVariantMap& changed,
                                     const QStringList& invalidated) {
    const QString path = known != paths_.end()
                             ? known->second.path
                             : QString::fromUtf8(rawPath.data(), static_cast<qsizetype>(rawPath.size()));
    updateDevice(path, changed, invalidated, true, &advertisement);
    if (advertisement.hasRssi || advertisement.hasManufacturerData ||
        changed.contains(QStringLiteral("RSSI")) || changed.contains(QStringLiteral("ManufacturerData")))
        onAdvertisement(path);
}

int ObjectCache::onDeviceDisconnected(sd_bus_message* m, void* self, sd_bus_error*) {
    // Device1.Disconnected(reason, message) comes just before Connected turns false.
    auto* e = static_cast<ObjectCache*>(self);
    const QString reason = Device1::disconnectedReason(m);
    if (reason.isEmpty()) return 0;
    e->gatt_->noteDisconnectReason(QString::fromUtf8(sd_bus_message_get_path(m)), reason);
    return 0;
}

// --- objects ------------------------------------------------------------------------------------

void ObjectCache::addInterfaces(const QString& path, const bluez::InterfaceMap& interfaces, bool fromSignal,
                                const BluezAdvertisement* advertisement) {
    for (auto it = interfaces.constBegin(); it != interfaces.constEnd(); ++it) {
        const QString& iface = it.key();
        if (iface == kAdapter) {
            logProblems(path, iface, adapters_[path].apply(it.value()));
        } else if (iface == kDevice) {
            updateDevice(path, it.value(), {}, fromSignal, advertisement);
            if (fromSignal) onAdvertisement(path);
        } else if (iface == kGattService) {
            logProblems(path, iface, gatt_->applyService(path, it.value()));
        } else if (iface == kGattCharacteristic) {
            logProblems(path, iface, gatt_->applyCharacteristic(path, it.value()));
        } else if (iface == kMediaTransport) {
            noteTransport(path, it.value());
        }
    }
    if (fromSignal && interfaces.contains(kAdapter)) onStateInputs();
}

void ObjectCache::noteName(const QString& path, const BluezDeviceProperties& device) {
    KnownPath& known = paths_[path.toStdString()];
    known.path = path;
    known.ignored = onlyLocalName_ && device.name && *device.name != *onlyLocalName_;
}

void ObjectCache::updateDevice(const QString& path, const QVariantMap& changed,
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
    if (device.name) onNamed(path);  // keeps the peripheral's name current
    if (!fromSignal) return;
    // Services of a dropped connection are not resolved any more, whatever came last.
    if (wasConnected && !device.connected.value_or(false)) device.servicesResolved = false;
    gatt_->deviceChanged(path, wasConnected, wasResolved);
}

void ObjectCache::removeDevice(const QString& path, int disconnectError) {
    if (!devices_.remove(path)) return;
    paths_.erase(path.toStdString());
    gatt_->deviceRemoved(path, disconnectError);
    onDeviceGone(path);
}

QString ObjectCache::adapterPath() const { return bluez::defaultAdapterPath(adapters_.keys()); }

void ObjectCache::logProblems(const QString& path, const QString& interface, const QStringList& problems) {
    for (const QString& p : problems)
        Log::logf("BluezCentral: %s on %s: %s; ignored", qUtf8Printable(interface), qUtf8Printable(path),
                  qUtf8Printable(p));
}

}  // namespace lumerix
