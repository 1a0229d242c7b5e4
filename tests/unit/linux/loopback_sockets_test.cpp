// Socket owners from the kernel's TCP tables: the text format, which sockets a connection to
// 127.0.0.1 can reach, and a check against real sockets of this process.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/linux/LoopbackSockets.h"
#include "sender/LoopbackClient.h"

namespace lumerix {
namespace {

// An address as the kernel prints it: each 32-bit word as the integer it is in memory.
std::string hexAddress(const char* text, bool ipv6) {
    uint8_t bytes[16] = {};
    inet_pton(ipv6 ? AF_INET6 : AF_INET, text, bytes);
    std::string out;
    for (size_t i = 0; i < (ipv6 ? 4u : 1u); ++i) {
        uint32_t word = 0;
        std::memcpy(&word, bytes + i * 4, sizeof word);
        char hex[9];
        std::snprintf(hex, sizeof hex, "%08X", word);
        out += hex;
    }
    return out;
}

std::string row(int slot, const char* local, uint16_t localPort, const char* remote, uint16_t remotePort,
                const char* state, uint32_t uid, bool ipv6 = false) {
    char line[512];
    std::snprintf(line, sizeof line,
                  "%4d: %s:%04X %s:%04X %s 00000000:00000000 00:00000000 00000000 %5u        0 %d 1 "
                  "0000000000000000 100 0 0 10 0\n",
                  slot, hexAddress(local, ipv6).c_str(), localPort, hexAddress(remote, ipv6).c_str(),
                  remotePort, state, uid, 10000 + slot);
    return line;
}

constexpr const char* kHeading =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
constexpr const char* kListen = "0A";
constexpr const char* kEstablished = "01";
constexpr const char* kTimeWait = "06";

TEST(LoopbackSockets, ParsesBothTablesAndSkipsWhatDoesNotParse) {
    const std::string v4 =
        kHeading + row(0, "127.0.0.1", 19314, "0.0.0.0", 0, kListen, 1001) +
        "   1: 100007F:4B72 00000000:0000 0A 00000000:00000000 00:00000000 00000000 7 0 1\n" +
        "   2: 0100007F:4B72 00000000:0000 0A 00000000:00000000 00:00000000 00000000 x 0 1\n" + "garbage\n" +
        row(3, "10.1.2.3", 443, "10.9.8.7", 51000, kEstablished, 4294967294u);
    const std::vector<TcpSocketRow> rows = parseTcpTable(v4, false);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].localPort, 19314);
    EXPECT_EQ(rows[0].state, 10);
    EXPECT_EQ(rows[0].uid, 1001u);
    const std::array<uint8_t, 16> mapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 9, 8, 7};
    EXPECT_EQ(rows[1].remoteAddress, mapped) << "IPv4 held IPv4-mapped, in network order";
    EXPECT_EQ(rows[1].remotePort, 51000);
    EXPECT_EQ(rows[1].uid, 4294967294u);

    const std::vector<TcpSocketRow> v6 =
        parseTcpTable(kHeading + row(0, "2001:db8::1", 8080, "::", 0, kListen, 5, true) +
                          row(1, "::1", 1, "::", 0, kListen, 6),
                      true);
    ASSERT_EQ(v6.size(), 1u) << "an IPv4-width address in the IPv6 table does not parse";
    EXPECT_EQ(v6[0].localAddress[0], 0x20);
    EXPECT_EQ(v6[0].localAddress[15], 0x01);
    EXPECT_TRUE(parseTcpTable("", false).empty());
}

TEST(LoopbackSockets, ListenersThatAConnectionTo127001Reaches) {
    std::vector<TcpSocketRow> rows =
        parseTcpTable(kHeading + row(0, "127.0.0.1", 100, "0.0.0.0", 0, kListen, 1001) +
                          row(1, "0.0.0.0", 200, "0.0.0.0", 0, kListen, 0) +
                          row(2, "127.0.0.2", 300, "0.0.0.0", 0, kListen, 7) +
                          row(3, "127.0.0.1", 400, "127.0.0.1", 5555, kEstablished, 8) +
                          row(4, "192.168.1.4", 500, "0.0.0.0", 0, kListen, 9) +
                          row(5, "127.0.0.1", 600, "0.0.0.0", 0, kListen, 1000),
                      false);
    const std::vector<TcpSocketRow> v6 =
        parseTcpTable(kHeading + row(0, "::", 600, "::", 0, kListen, 1001, true) +
                          row(1, "::1", 700, "::", 0, kListen, 1001, true) +
                          row(2, "::ffff:127.0.0.1", 800, "::", 0, kListen, 1002, true),
                      true);
    rows.insert(rows.end(), v6.begin(), v6.end());

    const struct {
        uint16_t port;
        std::vector<uint32_t> owners;
        const char* why;
    } cases[] = {
        {100, {1001}, "bound to 127.0.0.1"},
        {200, {0}, "bound to the IPv4 any-address"},
        {300, {}, "another loopback address is not 127.0.0.1"},
        {400, {}, "a connected socket is no listener"},
        {500, {}, "not a loopback address"},
        {600, {1000, 1001}, "an IPv6 any-address listener takes IPv4 too"},
        {700, {}, "::1 is not reached by 127.0.0.1"},
        {800, {1002}, "IPv4-mapped 127.0.0.1 in the IPv6 table"},
        {900, {}, "nothing there"},
    };
    for (const auto& c : cases) EXPECT_EQ(loopbackListenerOwners(rows, c.port), c.owners) << c.why;
}

TEST(LoopbackSockets, TheClientEndOfAConnectionToOurPort) {
    std::vector<TcpSocketRow> rows = parseTcpTable(
        kHeading +
            // The client end of 127.0.0.1:40000 -> 127.0.0.1:19319, and our accepted end of it.
            row(0, "127.0.0.1", 40000, "127.0.0.1", 19319, kEstablished, 1001) +
            row(1, "127.0.0.1", 19319, "127.0.0.1", 40000, kEstablished, 1000) +
            // Only our accepted end: the client is gone.
            row(2, "127.0.0.1", 19319, "127.0.0.1", 40001, kEstablished, 1000) +
            // A closed connection waits with uid 0 whoever made it.
            row(3, "127.0.0.1", 40002, "127.0.0.1", 19319, kTimeWait, 0) +
            // Two clients on one port number from different loopback addresses, different owners.
            row(4, "127.0.0.1", 40003, "127.0.0.1", 19319, kEstablished, 1000) +
            row(5, "127.0.0.2", 40003, "127.0.0.1", 19319, kEstablished, 1001) +
            // A client of another service on the same port number.
            row(6, "127.0.0.1", 40004, "127.0.0.1", 631, kEstablished, 1001),
        false);
    const std::vector<TcpSocketRow> v6 = parseTcpTable(
        kHeading + row(0, "::ffff:127.0.0.1", 40005, "::ffff:127.0.0.1", 19319, "08", 1000, true), true);
    rows.insert(rows.end(), v6.begin(), v6.end());

    const struct {
        uint16_t peerPort;
        std::optional<uint32_t> owner;
        const char* why;
    } cases[] = {
        {40000, 1001, "the client's own row, not our accepted end"},
        {40001, std::nullopt, "our accepted end alone says nothing of the client"},
        {40002, std::nullopt, "time-wait rows are ignored"},
        {40003, std::nullopt, "owners that cannot be told apart"},
        {40004, std::nullopt, "connected elsewhere"},
        {40005, 1000, "a dual-stack client, half-closed"},
    };
    for (const auto& c : cases) EXPECT_EQ(loopbackClientOwner(rows, 19319, c.peerPort), c.owner) << c.why;
}

TEST(LoopbackSockets, FindsThisProcessOnRealSockets) {
    using namespace testing_loopback;
    uint16_t port = 0;
    const int server = boundSocket(&port, true);
    const int client = connectTo(port);
    ASSERT_NE(client, -1);
    sockaddr_in local{};
    socklen_t length = sizeof local;
    ::getsockname(client, reinterpret_cast<sockaddr*>(&local), &length);

    const PeerCheck check = makeLoopbackPeerCheck();
    EXPECT_EQ(check.self, static_cast<uint32_t>(::getuid()));
    EXPECT_EQ(check.listenerOwners(port), std::vector<uint32_t>{check.self});
    EXPECT_EQ(loopbackListenerOwners(readTcpTables(), port), check.listenerOwners(port))
        << "netlink and /proc agree";
    EXPECT_EQ(loopbackClientOwner(readTcpTables(), port, ntohs(local.sin_port)), check.self);
    EXPECT_TRUE(check.listenersAreOurs(port));
    EXPECT_EQ(check.peerOwner(port, ntohs(local.sin_port)), check.self);
    ::close(client);
    ::close(server);
    EXPECT_TRUE(check.listenerOwners(port).empty());
}

}  // namespace
}  // namespace lumerix
