#include "platform/bluez/BluezInterfaces.h"

#include <cstring>
#include <string>
#include <string_view>

#include "platform/bluez/ObjectManager.h"

namespace lumerix::bluez {
namespace {

bool callNoArgs(sd_bus* bus, const QString& path, const char* interface, const char* member,
                sdbus::Completion done) {
    const QByteArray p = path.toUtf8();
    auto call = sdbus::newMethodCall(bus, kService, p.constData(), interface, member);
    return call && sdbus::callAsync(bus, call.get(), std::move(done));
}

// Properties of an advertisement that a device the filter ignores need not have read.
bool isAdvertisementProperty(const char* key) {
    return std::strcmp(key, "RSSI") == 0 || std::strcmp(key, "ManufacturerData") == 0 ||
           std::strcmp(key, "ServiceData") == 0 || std::strcmp(key, "TxPower") == 0;
}

}  // namespace

bool Adapter1::setDiscoveryFilter(sd_bus* bus, const QString& path, bool duplicateData,
                                  const QString& pattern, sdbus::Completion done) {
    const QByteArray p = path.toUtf8();
    auto call = sdbus::newMethodCall(bus, kService, p.constData(), kInterface, "SetDiscoveryFilter");
    if (!call) return false;
    const QByteArray prefix = pattern.toUtf8();
    const int r = pattern.isEmpty()
                      ? sd_bus_message_append(call.get(), "a{sv}", 2, "Transport", "s", "le", "DuplicateData",
                                              "b", int(duplicateData))
                      : sd_bus_message_append(call.get(), "a{sv}", 3, "Transport", "s", "le", "DuplicateData",
                                              "b", int(duplicateData), "Pattern", "s", prefix.constData());
    if (r < 0) return false;
    return sdbus::callAsync(bus, call.get(), std::move(done));
}

bool Adapter1::startDiscovery(sd_bus* bus, const QString& path, sdbus::Completion done) {
    return callNoArgs(bus, path, kInterface, "StartDiscovery", std::move(done));
}

bool Adapter1::stopDiscovery(sd_bus* bus, const QString& path, sdbus::Completion done) {
    return callNoArgs(bus, path, kInterface, "StopDiscovery", std::move(done));
}

bool Device1::connect(sd_bus* bus, const QString& path, sdbus::Completion done) {
    return callNoArgs(bus, path, kInterface, "Connect", std::move(done));
}

bool Device1::disconnect(sd_bus* bus, const QString& path, sdbus::Completion done) {
    return callNoArgs(bus, path, kInterface, "Disconnect", std::move(done));
}

QString Device1::disconnectedReason(sd_bus_message* m) {
    const char* reason = nullptr;
    char type = 0;
    if (sd_bus_message_peek_type(m, &type, nullptr) <= 0 || type != 's') return {};
    if (sd_bus_message_read_basic(m, 's', &reason) < 0) return {};
    return QString::fromUtf8(reason);
}

// One flat pass over the message body: the hot path of every advertisement, kept in one piece.
// NOLINTNEXTLINE(readability-function-cognitive-complexity)
bool Device1::readChanges(sd_bus_message* m, bool ignored, Advertisement* advertisement,
                          QVariantMap* changed) {
    // RSSI and ManufacturerData are entered with their expected types straight away (a mismatch
    // leaves the message where it was and takes the general path, which refuses it). Skipping is
    // for other properties only: sd_bus_message_skip walks arrays byte by byte.
    if (sd_bus_message_enter_container(m, 'a', "{sv}") < 0) return false;
    int r;
    while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
        const char* key = nullptr;
        if (sd_bus_message_read_basic(m, 's', &key) < 0) return false;
        const std::string_view k(key);
        if (k == "RSSI" && sd_bus_message_enter_container(m, 'v', "n") > 0) {
            int16_t v = 0;
            if (sd_bus_message_read_basic(m, 'n', &v) < 0 || sd_bus_message_exit_container(m) < 0)
                return false;
            advertisement->hasRssi = !ignored;
            advertisement->rssi = v;
        } else if (k == "ManufacturerData" && sd_bus_message_enter_container(m, 'v', "a{qv}") > 0) {
            // The lowest company identifier wins, as the property rules have it.
            if (sd_bus_message_enter_container(m, 'a', "{qv}") < 0) return false;
            bool any = false;
            uint16_t best = 0;
            const void* bytes = nullptr;
            size_t size = 0;
            std::string bestType;
            int e;
            while ((e = sd_bus_message_enter_container(m, 'e', "qv")) > 0) {
                uint16_t company = 0;
                if (sd_bus_message_read_basic(m, 'q', &company) < 0) return false;
                const bool lowest = !any || company < best;
                if (sd_bus_message_enter_container(m, 'v', "ay") > 0) {
                    const void* data = nullptr;
                    size_t length = 0;
                    if (sd_bus_message_read_array(m, 'y', &data, &length) < 0 ||
                        sd_bus_message_exit_container(m) < 0)
                        return false;
                    if (lowest) {
                        bytes = data;
                        size = length;
                        bestType.clear();
                    }
                } else {
                    char vt = 0;
                    const char* inner = nullptr;
                    if (sd_bus_message_peek_type(m, &vt, &inner) <= 0 || !inner) return false;
                    if (lowest) bestType = inner;
                    if (sd_bus_message_skip(m, "v") < 0) return false;
                }
                if (lowest) best = company;
                any = true;
                if (sd_bus_message_exit_container(m) < 0) return false;
            }
            if (e < 0 || sd_bus_message_exit_container(m) < 0 || sd_bus_message_exit_container(m) < 0)
                return false;
            advertisement->hasManufacturerData = !ignored;
            if (ignored) {
            } else if (!bestType.empty()) {
                advertisement->problem =
                    QStringLiteral("ManufacturerData for company 0x%1 is not a byte array (D-Bus %2)")
                        .arg(best, 4, 16, QLatin1Char('0'))
                        .arg(QString::fromStdString(bestType));
            } else if (any) {
                advertisement->manufacturerData = manufacturerRecord(best, bytes, size);
            }
        } else if (ignored && isAdvertisementProperty(key)) {
            if (sd_bus_message_skip(m, "v") < 0) return false;
        } else {
            QVariant value;
            if (!sdbus::readVariant(m, &value)) return false;
            changed->insert(QString::fromUtf8(key), value);
        }
        if (sd_bus_message_exit_container(m) < 0) return false;
    }
    return r >= 0 && sd_bus_message_exit_container(m) >= 0;
}

bool GattCharacteristic1::readValue(sd_bus* bus, const QString& path, sdbus::Completion done) {
    const QByteArray p = path.toUtf8();
    auto call = sdbus::newMethodCall(bus, kService, p.constData(), kInterface, "ReadValue");
    if (!call || sd_bus_message_append(call.get(), "a{sv}", 0) < 0) return false;
    return sdbus::callAsync(bus, call.get(), std::move(done));
}

bool GattCharacteristic1::value(const sdbus::Reply& reply, QByteArray* out, QString* problem) {
    const char* sig = sd_bus_message_get_signature(reply.message, 1);
    const void* data = nullptr;
    size_t size = 0;
    if (std::string_view(sig ? sig : "") != "ay" ||
        sd_bus_message_read_array(reply.message, 'y', &data, &size) < 0) {
        *problem =
            QStringLiteral("ReadValue answered with signature \"%1\"").arg(QString::fromUtf8(sig ? sig : ""));
        return false;
    }
    *out = QByteArray(static_cast<const char*>(data), static_cast<qsizetype>(size));
    return true;
}

}  // namespace lumerix::bluez
