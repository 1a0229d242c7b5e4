// Arbitrary bytes as the intake's relay reads them from the bus socket: split into messages by their
// fixed headers, each looked at for a plain advertisement. Whatever it returns lies within the bytes.
#include <cstddef>
#include <cstdint>

#include "QuietLog.h"
#include "platform/bluez/BusWire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    lumerix::fuzz::quietLog();
    namespace wire = lumerix::buswire;
    size_t at = 0;
    while (at < size) {
        size_t length = 0;
        if (wire::frame(data + at, size - at, &length) != wire::Frame::kComplete) break;
        if (length == 0 || length > size - at) __builtin_trap();
        if (const auto plain = wire::plainAdvertisement(data + at, length)) {
            const auto* p = reinterpret_cast<const uint8_t*>(plain->path.data());
            if (p < data + at || p + plain->path.size() > data + at + length) __builtin_trap();
            const auto& record = plain->advertisement.manufacturerData;
            if (record && static_cast<size_t>(record->size()) > length) __builtin_trap();
        }
        at += length;
    }
    return 0;
}
