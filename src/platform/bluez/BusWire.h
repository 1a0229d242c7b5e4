#pragma once
// D-Bus messages as bytes on the wire, for the one message the intake reads itself: a plain
// advertisement, bluetoothd's PropertiesChanged on org.bluez.Device1 that carries RSSI and
// ManufacturerData and nothing else. Everything else is sd-bus's to read.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/bluez/BluezProperties.h"

namespace lumerix::buswire {

// The largest message the protocol allows (128 MiB).
constexpr uint64_t kMaxMessageSize = 128ULL * 1024 * 1024;

enum class Frame {
    kIncomplete,  // fewer bytes than the fixed header, or than the whole message
    kComplete,    // *length holds the message's size
    kInvalid,     // not a D-Bus message: wrong byte order mark, version or sizes
};

// The size of the message that starts at data, from its fixed header.
Frame frame(const uint8_t* data, size_t available, size_t* length);

struct PlainAdvertisement {
    std::string_view path;  // the device's object path, within the message's bytes
    BluezAdvertisement advertisement;
};

// A broadcast PropertiesChanged signal for org.bluez.Device1 whose changed properties are only
// RSSI (int16) and ManufacturerData (company id to byte array), with nothing invalidated;
// otherwise nothing, and the message is left to sd-bus (which also refuses what is malformed).
// The message must be complete (see frame()).
std::optional<PlainAdvertisement> plainAdvertisement(const uint8_t* data, size_t length);

}  // namespace lumerix::buswire
