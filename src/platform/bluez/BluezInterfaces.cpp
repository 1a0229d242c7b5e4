#include "platform/bluez/BluezInterfaces.h"

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

}  // namespace

bool Adapter1::setDiscoveryFilter(sd_bus* bus, const QString& path, bool duplicateData,
                                  sdbus::Completion done) {
    const QByteArray p = path.toUtf8();
    auto call = sdbus::newMethodCall(bus, kService, p.constData(), kInterface, "SetDiscoveryFilter");
    if (!call) return false;
    if (sd_bus_message_append(call.get(), "a{sv}", 2, "Transport", "s", "le", "DuplicateData", "b",
                              int(duplicateData)) < 0)
        return false;
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
