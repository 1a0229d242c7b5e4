#pragma once
// Owners of loopback TCP sockets: who listens where a connection to 127.0.0.1:port lands, and who
// holds the client end of a connection to one of our ports. Backs the sender link's PeerCheck.
// The kernel is asked through socket diagnostics (netlink): a dump of listeners and an exact
// lookup cost the same however many connections the machine has. Where netlink is unavailable,
// the text tables /proc/net/tcp and tcp6 are read instead.
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "sender/PeerCheck.h"

namespace lumerix {

struct TcpSocketRow {
    // IPv4 addresses are held IPv4-mapped (::ffff:a.b.c.d), network byte order.
    std::array<uint8_t, 16> localAddress{};
    uint16_t localPort = 0;
    std::array<uint8_t, 16> remoteAddress{};
    uint16_t remotePort = 0;
    int state = 0;  // the kernel's TCP state number; 10 is LISTEN, 6 TIME_WAIT
    uint32_t uid = 0;
};

// The rows of one table in the format of /proc/net/tcp (ipv6 false) or /proc/net/tcp6; the
// heading and any line that does not parse are skipped.
std::vector<TcpSocketRow> parseTcpTable(std::string_view text, bool ipv6);

// Owners of listening sockets that a connection to 127.0.0.1:port may reach.
std::vector<uint32_t> loopbackListenerOwners(const std::vector<TcpSocketRow>& rows, uint16_t port);
// Owner of the socket 127.0.0.1:peerPort connected to 127.0.0.1:localPort.
std::optional<uint32_t> loopbackClientOwner(const std::vector<TcpSocketRow>& rows, uint16_t localPort,
                                            uint16_t peerPort);

// Both text tables of this network namespace; empty when neither can be read.
std::vector<TcpSocketRow> readTcpTables();
// The real check for this process: its uid and the two lookups above on what the kernel says now.
PeerCheck makeLoopbackPeerCheck();

}  // namespace lumerix
