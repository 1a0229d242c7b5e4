#include "platform/bluez/BluezProperties.h"

#include <QDBusArgument>
#include <QHash>
#include <QMap>
#include <QRegularExpression>

#include "ble/BleCentral.h"

namespace lumerix {
namespace {

QString typeName(const QVariant& v) {
    if (v.typeId() == qMetaTypeId<QDBusArgument>())
        return QStringLiteral("D-Bus ") + v.value<QDBusArgument>().currentSignature();
    return QString::fromLatin1(v.typeName() ? v.typeName() : "invalid");
}

QString refused(const QString& name, const QVariant& v) {
    return QStringLiteral("%1 has an unexpected type (%2)").arg(name, typeName(v));
}

// Reads one typed property; leaves `out` alone and records a problem for a wrong type.
template <typename T>
void take(const QVariantMap& changed, const QString& name, QMetaType::Type type, std::optional<T>& out,
          QStringList& problems) {
    auto it = changed.constFind(name);
    if (it == changed.constEnd()) return;
    if (it->typeId() != type) {
        problems.append(refused(name, *it));
        return;
    }
    out = it->value<T>();
}

template <typename T>
void forget(const QStringList& invalidated, const QString& name, std::optional<T>& out) {
    if (invalidated.contains(name)) out.reset();
}

}  // namespace

QStringList BluezAdapterProperties::apply(const QVariantMap& changed, const QStringList& invalidated) {
    QStringList problems;
    take(changed, QStringLiteral("Powered"), QMetaType::Bool, powered, problems);
    forget(invalidated, QStringLiteral("Powered"), powered);
    return problems;
}

QStringList BluezDeviceProperties::apply(const QVariantMap& changed, const QStringList& invalidated,
                                         const BluezAdvertisement& advertisement) {
    QStringList problems;
    take(changed, QStringLiteral("Address"), QMetaType::QString, address, problems);
    take(changed, QStringLiteral("Name"), QMetaType::QString, name, problems);
    take(changed, QStringLiteral("Connected"), QMetaType::Bool, connected, problems);
    take(changed, QStringLiteral("ServicesResolved"), QMetaType::Bool, servicesResolved, problems);

    if (advertisement.hasRssi) rssi = advertisement.rssi;
    if (advertisement.hasManufacturerData) {
        if (advertisement.problem.isEmpty())
            manufacturerData = advertisement.manufacturerData;
        else
            problems.append(advertisement.problem);
    }
    for (const QString& typed : {QStringLiteral("RSSI"), QStringLiteral("ManufacturerData")}) {
        auto it = changed.constFind(typed);
        if (it != changed.constEnd()) problems.append(refused(typed, *it));
    }

    forget(invalidated, QStringLiteral("Address"), address);
    forget(invalidated, QStringLiteral("Name"), name);
    forget(invalidated, QStringLiteral("RSSI"), rssi);
    forget(invalidated, QStringLiteral("ManufacturerData"), manufacturerData);
    forget(invalidated, QStringLiteral("Connected"), connected);
    forget(invalidated, QStringLiteral("ServicesResolved"), servicesResolved);
    return problems;
}

QStringList BluezGattProperties::apply(const QVariantMap& changed, const QStringList& invalidated) {
    QStringList problems;
    take(changed, QStringLiteral("UUID"), QMetaType::QString, uuid, problems);
    forget(invalidated, QStringLiteral("UUID"), uuid);
    return problems;
}

namespace bluez {

QString identifierForAddress(const QString& address) {
    static const QRegularExpression re(QStringLiteral("^[0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){5}$"));
    if (!re.match(address).hasMatch()) return {};
    QString hex = address;
    hex.remove(QLatin1Char(':'));
    return QStringLiteral("00000000-0000-0000-0000-") + hex.toUpper();
}

QString addressFromDevicePath(const QString& path) {
    static const QRegularExpression re(QStringLiteral("/dev_([0-9A-Fa-f]{2}(_[0-9A-Fa-f]{2}){5})$"));
    auto match = re.match(path);
    if (!match.hasMatch()) return {};
    return match.captured(1).replace(QLatin1Char('_'), QLatin1Char(':')).toUpper();
}

QString identifierForDevice(const QString& path, const BluezDeviceProperties& props) {
    if (props.address) {
        QString id = identifierForAddress(*props.address);
        if (!id.isEmpty()) return id;
    }
    return identifierForAddress(addressFromDevicePath(path));
}

int centralState(bool bluezPresent, bool accessDenied, const std::optional<BluezAdapterProperties>& adapter) {
    if (!bluezPresent) return BleStateUnknown;
    if (accessDenied) return BleStateUnauthorized;
    if (!adapter) return BleStateUnsupported;
    return adapter->powered.value_or(false) ? BleStatePoweredOn : BleStatePoweredOff;
}

int errorCodeForDBusError(const QString& name) {
    static const QHash<QString, int> codes = {
        {QStringLiteral("org.bluez.Error.InvalidArguments"), BluezErrorInvalidParameters},
        {QStringLiteral("org.bluez.Error.InvalidValueLength"), BluezErrorInvalidParameters},
        {QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"), BluezErrorInvalidParameters},
        {QStringLiteral("org.bluez.Error.NotConnected"), BluezErrorNotConnected},
        {QStringLiteral("org.freedesktop.DBus.Error.NoReply"), BluezErrorTimedOut},
        {QStringLiteral("org.freedesktop.DBus.Error.Timeout"), BluezErrorTimedOut},
        {QStringLiteral("org.freedesktop.DBus.Error.TimedOut"), BluezErrorTimedOut},
        {QStringLiteral("org.freedesktop.DBus.Error.UnknownObject"), BluezErrorPeripheralDisconnected},
        {QStringLiteral("org.freedesktop.DBus.Error.ServiceUnknown"), BluezErrorPeripheralDisconnected},
        {QStringLiteral("org.bluez.Error.NotPermitted"), BluezErrorNotPermitted},
        {QStringLiteral("org.bluez.Error.NotAuthorized"), BluezErrorNotPermitted},
        {QStringLiteral("org.bluez.Error.AuthenticationFailed"), BluezErrorNotPermitted},
        {QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"), BluezErrorNotPermitted},
        {QStringLiteral("org.bluez.Error.NotSupported"), BluezErrorNotSupported},
        {QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod"), BluezErrorNotSupported},
        {QStringLiteral("org.bluez.Error.InProgress"), BluezErrorInProgress},
    };
    return codes.value(name, BluezErrorUnknown);
}

std::optional<int> disconnectErrorForReason(const QString& reason) {
    if (reason == QLatin1String("org.bluez.Reason.Timeout")) return BluezErrorTimedOut;
    if (reason == QLatin1String("org.bluez.Reason.Remote")) return BluezErrorPeripheralDisconnected;
    if (reason == QLatin1String("org.bluez.Reason.Authentication")) return BluezErrorNotPermitted;
    return std::nullopt;
}

bool isBelow(const QString& child, const QString& parent) {
    return child.size() > parent.size() + 1 && child.startsWith(parent) &&
           child.at(parent.size()) == QLatin1Char('/');
}

}  // namespace bluez
}  // namespace lumerix
