#pragma once
// The sender frame ("GeneralPacket") and its delivery to the sender's loopback port.
#include <cstdint>

#include "sender/ConnectionInfo.h"
#include "sender/PeerCheck.h"

namespace lumerix {

// What became of one frame for the sender.
enum class DeliveryOutcome {
    Delivered,        // the whole frame was sent
    Unreachable,      // nothing took it: no connection, or the send failed
    ForeignListener,  // the port is held by another user's socket: nothing was sent
};

struct MainController {
    static constexpr uint8_t kCommandConnectionInfo = 0x03;
    static constexpr uint8_t kCommandRequest = 0x04;

    // Builds the connection-info frame into buffer and returns the count to transmit (L + 2).
    // Returns 0 and writes nothing when a field's UTF-8 form is 256 bytes or longer, or when the
    // frame would not fit bufferLength.
    static uint64_t GeneralPacket(uint8_t* buffer, uint64_t bufferLength, const ConnectionInfo& userInfo);

    // One TCP connection to 127.0.0.1:port per frame: connect (30 s), send once, close.
    // Connection failures are printed to standard output. With peers set, the socket listening on
    // the port must be ours both before and after the connect, else nothing is sent and a log line
    // says whose it is. The program must ignore SIGPIPE.
    static DeliveryOutcome SendDataToOndrel(const uint8_t* buffer, uint64_t bufferLength,
                                            uint16_t port = kSenderDataPort, const PeerCheck& peers = {});
};

}  // namespace lumerix
