#pragma once
// The start-up Bluetooth check (InitBlueToothDevice): true when BlueZ has a default adapter (the
// lowest-numbered one, hci0 on most machines) and its Powered property is true. One bounded call on
// the given bus; the reason for a false answer is logged.
#include <QDBusConnection>

namespace lumerix {

struct BluezPowerCheck {
    static constexpr int kDefaultTimeoutMs = 1500;

    static bool InitBlueToothDevice(const QDBusConnection& bus, int timeoutMs = kDefaultTimeoutMs);
};

}  // namespace lumerix
