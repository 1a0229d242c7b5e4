#pragma once
// The start-up Bluetooth check (InitBlueToothDevice): true when BlueZ has a default adapter (the
// lowest-numbered one, hci0 on most machines) and its Powered property is true. One bounded
// GetManagedObjects on a connection of its own; it blocks the caller, so run it off the main
// thread. The reason for a false answer is logged.
namespace lumerix {

struct BluezPowerCheck {
    static constexpr int kDefaultTimeoutMs = 1500;

    static bool InitBlueToothDevice(int timeoutMs = kDefaultTimeoutMs);
};

}  // namespace lumerix
