#include "platform/linux/BluezPowerCheck.h"

#include "log/Log.h"
#include "platform/bluez/ObjectManager.h"

namespace lumerix {

bool BluezPowerCheck::InitBlueToothDevice(int timeoutMs) {
    const bluez::Snapshot snapshot = bluez::ObjectManager::takeSnapshot(timeoutMs);
    if (!snapshot.reached || !snapshot.error.isEmpty()) {
        Log::logf("Bluetooth check: BlueZ did not answer (%s)", snapshot.error.toUtf8().constData());
        return false;
    }
    const QString adapter = bluez::defaultAdapterPath(snapshot.adapterPaths());
    if (adapter.isEmpty()) {
        Log::logf("Bluetooth check: no Bluetooth adapter");
        return false;
    }
    if (!bluez::defaultAdapterPowered(snapshot).value_or(false)) {
        Log::logf("Bluetooth check: adapter %s is not powered on", adapter.toUtf8().constData());
        return false;
    }
    return true;
}

}  // namespace lumerix
