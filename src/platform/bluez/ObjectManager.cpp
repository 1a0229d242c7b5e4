#include "platform/bluez/ObjectManager.h"

#include "platform/bluez/BluezInterfaces.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace lumerix::bluez {
namespace {

constexpr const char* kAdapterInterface = "org.bluez.Adapter1";
constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";

// Index of "hciN" as the last element of path; nullopt for other names.
std::optional<unsigned long> hciIndex(const QString& path) {
    const QString last = path.section(QLatin1Char('/'), -1);
    if (!last.startsWith(QLatin1String("hci")) || last.size() == 3) return std::nullopt;
    bool ok = false;
    const unsigned long n = last.mid(3).toULong(&ok);
    if (!ok || !last.at(3).isDigit()) return std::nullopt;
    return n;
}

bool readInterfaces(sd_bus_message* m, InterfaceMap* out, BluezAdvertisement* advertisement) {
    if (sd_bus_message_enter_container(m, 'a', "{sa{sv}}") < 0) return false;
    int r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sa{sv}")) > 0) {
        const char* name = nullptr;
        if (sd_bus_message_read_basic(m, 's', &name) < 0) return false;
        QVariantMap props;
        if (std::strcmp(name, Device1::kInterface) == 0) {
            if (!Device1::readChanges(m, false, advertisement, &props)) return false;
        } else if (!sdbus::readPropertyMap(m, &props)) {
            return false;
        }
        out->insert(QString::fromUtf8(name), props);
        if (sd_bus_message_exit_container(m) < 0) return false;
    }
    return r >= 0 && sd_bus_message_exit_container(m) >= 0;
}

}  // namespace

QStringList Snapshot::adapterPaths() const {
    QStringList paths;
    for (auto it = objects.constBegin(); it != objects.constEnd(); ++it)
        if (it->contains(QLatin1String(kAdapterInterface))) paths.append(it.key());
    return paths;
}

QString defaultAdapterPath(const QStringList& adapterPaths) {
    if (adapterPaths.isEmpty()) return {};
    auto before = [](const QString& a, const QString& b) {
        const auto ia = hciIndex(a);
        const auto ib = hciIndex(b);
        if (ia && ib && *ia != *ib) return *ia < *ib;
        if (ia.has_value() != ib.has_value()) return ia.has_value();
        return a < b;
    };
    return *std::min_element(adapterPaths.begin(), adapterPaths.end(), before);
}

std::optional<bool> defaultAdapterPowered(const Snapshot& snapshot) {
    return adapterPowered(snapshot, defaultAdapterPath(snapshot.adapterPaths()));
}

std::optional<bool> adapterPowered(const Snapshot& snapshot, const QString& path) {
    const QVariant powered =
        snapshot.objects.value(path).value(QLatin1String(kAdapterInterface)).value(QStringLiteral("Powered"));
    if (powered.typeId() != QMetaType::Bool) return std::nullopt;
    return powered.toBool();
}

bool ObjectManager::readManagedObjects(sd_bus_message* m, ManagedObjects* out,
                                       Advertisements* advertisements) {
    if (std::string_view(sdbus::signature(m)) != "a{oa{sa{sv}}}") return false;
    if (sd_bus_message_enter_container(m, 'a', "{oa{sa{sv}}}") < 0) return false;
    int r;
    while ((r = sd_bus_message_enter_container(m, 'e', "oa{sa{sv}}")) > 0) {
        const char* path = nullptr;
        if (sd_bus_message_read_basic(m, 'o', &path) < 0) return false;
        InterfaceMap interfaces;
        BluezAdvertisement advertisement;
        if (!readInterfaces(m, &interfaces, &advertisement)) return false;
        const QString key = QString::fromUtf8(path);
        if (advertisement.hasRssi || advertisement.hasManufacturerData)
            advertisements->insert(key, advertisement);
        out->insert(key, interfaces);
        if (sd_bus_message_exit_container(m) < 0) return false;
    }
    return r >= 0 && sd_bus_message_exit_container(m) >= 0;
}

bool ObjectManager::readInterfacesAdded(sd_bus_message* m, QString* path, InterfaceMap* interfaces,
                                        BluezAdvertisement* advertisement) {
    if (std::string_view(sdbus::signature(m)) != "oa{sa{sv}}") return false;
    const char* p = nullptr;
    if (sd_bus_message_read_basic(m, 'o', &p) < 0) return false;
    *path = QString::fromUtf8(p);
    return readInterfaces(m, interfaces, advertisement);
}

bool ObjectManager::readInterfacesRemoved(sd_bus_message* m, QString* path, QStringList* interfaces) {
    if (std::string_view(sdbus::signature(m)) != "oas") return false;
    const char* p = nullptr;
    if (sd_bus_message_read_basic(m, 'o', &p) < 0) return false;
    *path = QString::fromUtf8(p);
    return sdbus::readStringArray(m, interfaces);
}

Snapshot ObjectManager::snapshotFromReply(const sdbus::Reply& reply) {
    Snapshot s;
    if (!reply.ok()) {
        s.accessDenied = reply.errorName == QLatin1String(kAccessDenied);
        s.error = reply.errorText();
        return s;
    }
    s.reached = true;
    if (!readManagedObjects(reply.message, &s.objects, &s.advertisements)) {
        s.error = QStringLiteral("GetManagedObjects answered with signature \"%1\"")
                      .arg(QString::fromUtf8(sdbus::signature(reply.message)));
        s.objects.clear();
        s.advertisements.clear();
    }
    return s;
}

bool ObjectManager::getManagedObjects(sd_bus* bus, std::function<void(Snapshot)> done) {
    auto call = sdbus::newMethodCall(bus, kService, "/", kInterface, "GetManagedObjects");
    if (!call) return false;
    return sdbus::callAsync(bus, call.get(),
                            [done = std::move(done)](const sdbus::Reply& r) { done(snapshotFromReply(r)); });
}

Snapshot ObjectManager::takeSnapshot(int timeoutMs) {
    Snapshot s;
    QString error;
    sdbus::BusPtr bus = sdbus::openSystemBus(&error);
    if (!bus) {
        s.error = QStringLiteral("no system bus (%1)").arg(error);
        return s;
    }
    auto call = sdbus::newMethodCall(bus.get(), kService, "/", kInterface, "GetManagedObjects");
    sd_bus_error e{};  // SD_BUS_ERROR_NULL, without its C compound literal
    sd_bus_message* reply = nullptr;
    const int r = call ? sd_bus_call(bus.get(), call.get(), uint64_t(timeoutMs) * 1000, &e, &reply) : -EINVAL;
    sdbus::Reply answer;
    sdbus::MessagePtr owned(reply);
    answer.message = reply;
    if (r < 0) {
        answer.errorName = QString::fromUtf8(e.name ? e.name : "org.freedesktop.DBus.Error.Failed");
        answer.errorMessage = QString::fromUtf8(e.message ? e.message : std::strerror(-r));
    }
    sd_bus_error_free(&e);
    return snapshotFromReply(answer);
}

}  // namespace lumerix::bluez
