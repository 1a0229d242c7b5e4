#include "platform/linux/LoopbackSockets.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>

namespace lumerix {
namespace {

constexpr int kStateListen = 10;
constexpr int kStateTimeWait = 6;             // shown with uid 0 whoever made it: never an owner
constexpr size_t kMaxTableBytes = 64u << 20;  // far beyond any real table; bounds a broken /proc

using Address = std::array<uint8_t, 16>;

constexpr Address mappedV4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    return {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, a, b, c, d};
}
constexpr Address kLoopbackV4 = mappedV4(127, 0, 0, 1);
constexpr Address kAnyV4 = mappedV4(0, 0, 0, 0);
constexpr Address kAnyV6{};

bool parseHex(std::string_view text, uint32_t* value) {
    if (text.empty()) return false;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value, 16);
    return error == std::errc() && end == text.data() + text.size();
}

// "0100007F:4B72": the kernel prints each 32-bit word of the address as the integer it is in
// memory, so copying the parsed value back in native order restores the network-order bytes.
bool parseEndpoint(std::string_view text, bool ipv6, Address* address, uint16_t* port) {
    const size_t colon = text.find(':');
    const size_t words = ipv6 ? 4 : 1;
    if (colon != words * 8) return false;
    uint32_t portValue = 0;
    if (!parseHex(text.substr(colon + 1), &portValue) || portValue > 0xFFFF) return false;
    Address parsed = ipv6 ? Address{} : mappedV4(0, 0, 0, 0);
    for (size_t i = 0; i < words; ++i) {
        uint32_t word = 0;
        if (!parseHex(text.substr(i * 8, 8), &word)) return false;
        std::memcpy(parsed.data() + (ipv6 ? i * 4 : 12), &word, sizeof word);
    }
    *address = parsed;
    *port = static_cast<uint16_t>(portValue);
    return true;
}

std::string_view nextField(std::string_view& line) {
    const size_t start = line.find_first_not_of(' ');
    if (start == std::string_view::npos) {
        line = {};
        return {};
    }
    line.remove_prefix(start);
    const size_t end = std::min(line.find(' '), line.size());
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(end);
    return field;
}

std::string readTable(const char* path) {
    std::string text;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) return text;
    char chunk[65536];
    while (text.size() < kMaxTableBytes) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        text.append(chunk, static_cast<size_t>(n));
    }
    ::close(fd);
    return text;
}

}  // namespace

std::vector<TcpSocketRow> parseTcpTable(std::string_view text, bool ipv6) {
    std::vector<TcpSocketRow> rows;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));

        // sl local_address rem_address st tx:rx tr:when retrnsmt uid ...
        const std::string_view slot = nextField(line);
        if (slot.empty() || slot.back() != ':') continue;  // the heading, or junk
        TcpSocketRow row;
        uint32_t state = 0;
        uint32_t uid = 0;
        if (!parseEndpoint(nextField(line), ipv6, &row.localAddress, &row.localPort) ||
            !parseEndpoint(nextField(line), ipv6, &row.remoteAddress, &row.remotePort) ||
            !parseHex(nextField(line), &state))
            continue;
        nextField(line);  // tx_queue:rx_queue
        nextField(line);  // tr:tm->when
        nextField(line);  // retrnsmt
        const std::string_view uidText = nextField(line);
        const auto [uidEnd, error] =
            std::from_chars(uidText.data(), uidText.data() + uidText.size(), uid, 10);
        if (uidText.empty() || error != std::errc() || uidEnd != uidText.data() + uidText.size()) continue;
        row.state = static_cast<int>(state);
        row.uid = uid;
        rows.push_back(row);
    }
    return rows;
}

std::vector<uint32_t> loopbackListenerOwners(const std::vector<TcpSocketRow>& rows, uint16_t port) {
    std::vector<uint32_t> owners;
    for (const TcpSocketRow& row : rows) {
        if (row.state != kStateListen || row.localPort != port) continue;
        // Bound to 127.0.0.1 itself, or to an any-address (an IPv6 one may take IPv4 too).
        if (row.localAddress == kLoopbackV4 || row.localAddress == kAnyV4 || row.localAddress == kAnyV6)
            owners.push_back(row.uid);
    }
    return owners;
}

std::optional<uint32_t> loopbackClientOwner(const std::vector<TcpSocketRow>& rows, uint16_t localPort,
                                            uint16_t peerPort) {
    std::optional<uint32_t> owner;
    for (const TcpSocketRow& row : rows) {
        if (row.state == kStateListen || row.state == kStateTimeWait) continue;
        if (row.localPort != peerPort || row.remotePort != localPort || row.remoteAddress != kLoopbackV4)
            continue;
        // Two clients on different loopback addresses may share a port number: if they differ in
        // owner, nobody can be told apart and nobody is answered.
        if (owner && *owner != row.uid) return std::nullopt;
        owner = row.uid;
    }
    return owner;
}

std::vector<TcpSocketRow> readTcpTables() {
    std::vector<TcpSocketRow> rows = parseTcpTable(readTable("/proc/net/tcp"), false);
    std::vector<TcpSocketRow> rows6 = parseTcpTable(readTable("/proc/net/tcp6"), true);
    rows.insert(rows.end(), rows6.begin(), rows6.end());
    return rows;
}

PeerCheck makeLoopbackPeerCheck() {
    PeerCheck check;
    check.self = static_cast<uint32_t>(::getuid());
    check.listenerOwners = [](uint16_t port) { return loopbackListenerOwners(readTcpTables(), port); };
    check.peerOwner = [](uint16_t localPort, uint16_t peerPort) {
        return loopbackClientOwner(readTcpTables(), localPort, peerPort);
    };
    return check;
}

}  // namespace lumerix
