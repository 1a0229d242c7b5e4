#include "platform/linux/BluezPowerCheck.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QMap>
#include <QVariantMap>

#include "log/Log.h"

namespace lumerix {

namespace {

const QString kAdapterInterface = QStringLiteral("org.bluez.Adapter1");

// Adapter object path -> its Adapter1 properties, from a GetManagedObjects reply.
QMap<QString, QVariantMap> adaptersOf(const QDBusArgument& objects) {
    QMap<QString, QVariantMap> adapters;
    objects.beginMap();
    while (!objects.atEnd()) {
        QDBusObjectPath path;
        objects.beginMapEntry();
        objects >> path;
        objects.beginMap();
        while (!objects.atEnd()) {
            QString interface;
            QVariantMap properties;
            objects.beginMapEntry();
            objects >> interface >> properties;
            objects.endMapEntry();
            if (interface == kAdapterInterface) adapters.insert(path.path(), properties);
        }
        objects.endMap();
        objects.endMapEntry();
    }
    objects.endMap();
    return adapters;
}

}  // namespace

bool BluezPowerCheck::InitBlueToothDevice(const QDBusConnection& bus, int timeoutMs) {
    if (!bus.isConnected()) {
        Log::logf("Bluetooth check: no system bus");
        return false;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.bluez"), QStringLiteral("/"),
                                                       QStringLiteral("org.freedesktop.DBus.ObjectManager"),
                                                       QStringLiteral("GetManagedObjects"));
    const QDBusMessage reply = bus.call(call, QDBus::Block, timeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        Log::logf("Bluetooth check: BlueZ did not answer (%s)", reply.errorMessage().toUtf8().constData());
        return false;
    }
    if (reply.signature() != QLatin1String("a{oa{sa{sv}}}") || reply.arguments().size() != 1) {
        Log::logf("Bluetooth check: unexpected BlueZ reply signature %s",
                  reply.signature().toUtf8().constData());
        return false;
    }
    const QMap<QString, QVariantMap> adapters = adaptersOf(reply.arguments().first().value<QDBusArgument>());
    if (adapters.isEmpty()) {
        Log::logf("Bluetooth check: no Bluetooth adapter");
        return false;
    }
    // BlueZ's default adapter is the one with the lowest index: hci2 before hci10.
    QString first = adapters.firstKey();
    for (const QString& path : adapters.keys()) {
        if (path.size() < first.size() || (path.size() == first.size() && path < first)) first = path;
    }
    const QVariant powered = adapters.value(first).value(QStringLiteral("Powered"));
    if (powered.typeId() != QMetaType::Bool || !powered.toBool()) {
        Log::logf("Bluetooth check: adapter %s is not powered on", first.toUtf8().constData());
        return false;
    }
    return true;
}

}  // namespace lumerix
