#pragma once
// The sender frame ("GeneralPacket") and its delivery to the sender's loopback port.
#include <cstdint>

#include "sender/ConnectionInfo.h"

namespace lumerix {

struct MainController {
    static constexpr uint8_t kCommandConnectionInfo = 0x03;
    static constexpr uint8_t kCommandRequest = 0x04;

    // Builds the connection-info frame into buffer and returns the count to transmit (L + 2).
    // Returns 0 and writes nothing when a field's UTF-8 form is 256 bytes or longer, or when the
    // frame would not fit bufferLength.
    static uint64_t GeneralPacket(uint8_t* buffer, uint64_t bufferLength, const ConnectionInfo& userInfo);

    // One TCP connection to 127.0.0.1:port per frame: connect (30 s), send once, close.
    // Failures are printed to standard output; true when the whole frame was sent. The program
    // must ignore SIGPIPE.
    static bool SendDataToOndrel(const uint8_t* buffer, uint64_t bufferLength,
                                 uint16_t port = kSenderDataPort);
};

}  // namespace lumerix
