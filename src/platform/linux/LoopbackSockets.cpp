#include "platform/linux/LoopbackSockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>
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

std::vector<TcpSocketRow> tablesFromProc();

TcpSocketRow rowFromDiag(const inet_diag_msg& diag) {
    TcpSocketRow row;
    const bool v4 = diag.idiag_family == AF_INET;
    row.localAddress = row.remoteAddress = v4 ? mappedV4(0, 0, 0, 0) : Address{};
    std::memcpy(row.localAddress.data() + (v4 ? 12 : 0), diag.id.idiag_src, v4 ? 4 : 16);
    std::memcpy(row.remoteAddress.data() + (v4 ? 12 : 0), diag.id.idiag_dst, v4 ? 4 : 16);
    row.localPort = ntohs(diag.id.idiag_sport);
    row.remotePort = ntohs(diag.id.idiag_dport);
    row.state = diag.idiag_state;
    row.uid = diag.idiag_uid;
    return row;
}

// Sends one SOCK_DIAG_BY_FAMILY request for TCP; false when it cannot be sent.
bool sendDiagRequest(int fd, uint8_t family, uint32_t states, const inet_diag_sockid* exact) {
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | (exact ? 0 : NLM_F_DUMP);
    message.request.sdiag_family = family;
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = states;
    if (exact) message.request.id = *exact;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return ::sendto(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) ==
           static_cast<ssize_t>(sizeof message);
}

enum class DiagRead { More, Done, Failed };

// One datagram of answers: each socket to `each`; whether more are to come.
DiagRead readDiagAnswers(const char* buffer, unsigned length, bool exact,
                         const std::function<void(const TcpSocketRow&)>& each) {
    for (const auto* header = reinterpret_cast<const nlmsghdr*>(buffer); NLMSG_OK(header, length);
         header = NLMSG_NEXT(header, length)) {
        if (header->nlmsg_type == NLMSG_DONE) return DiagRead::Done;
        if (header->nlmsg_type == NLMSG_ERROR) {
            // ENOENT: the exact socket does not exist, which is an answer too.
            const auto* error = static_cast<const nlmsgerr*>(NLMSG_DATA(header));
            return exact && error->error == -ENOENT ? DiagRead::Done : DiagRead::Failed;
        }
        if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
            header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg)))
            continue;
        each(rowFromDiag(*static_cast<const inet_diag_msg*>(NLMSG_DATA(header))));
        if (exact) return DiagRead::Done;  // one answer, no closing message
    }
    return DiagRead::More;
}

// The kernel's socket diagnostics: one request, each answered socket as a row. With exact set,
// the one socket whose local end is exact's source (no dump). False when netlink cannot be used
// at all (no socket, or a refused request); a lookup that finds nothing is no failure.
bool sockDiag(uint8_t family, uint32_t states, const inet_diag_sockid* exact,
              const std::function<void(const TcpSocketRow&)>& each) {
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd == -1) return false;
    DiagRead state = sendDiagRequest(fd, family, states, exact) ? DiagRead::More : DiagRead::Failed;
    alignas(nlmsghdr) char buffer[16384];
    while (state == DiagRead::More) {
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        state = n <= 0 ? DiagRead::Failed
                       : readDiagAnswers(buffer, static_cast<unsigned>(n), exact != nullptr, each);
    }
    ::close(fd);
    return state == DiagRead::Done;
}

std::vector<TcpSocketRow> listeningRows() {
    std::vector<TcpSocketRow> rows;
    const auto keep = [&rows](const TcpSocketRow& row) { rows.push_back(row); };
    // A dump of listeners only walks the kernel's listening table, however many connections exist.
    if (sockDiag(AF_INET, 1u << kStateListen, nullptr, keep) &&
        sockDiag(AF_INET6, 1u << kStateListen, nullptr, keep))
        return rows;
    return tablesFromProc();
}

std::optional<uint32_t> clientOwner(uint16_t localPort, uint16_t peerPort) {
    inet_diag_sockid id{};
    id.idiag_sport = htons(peerPort);
    id.idiag_dport = htons(localPort);
    id.idiag_src[0] = id.idiag_dst[0] = htonl(INADDR_LOOPBACK);
    id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    std::vector<TcpSocketRow> rows;
    if (sockDiag(AF_INET, ~0u, &id, [&rows](const TcpSocketRow& row) { rows.push_back(row); }))
        return loopbackClientOwner(rows, localPort, peerPort);
    return loopbackClientOwner(tablesFromProc(), localPort, peerPort);
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

namespace {
std::vector<TcpSocketRow> tablesFromProc() {
    std::vector<TcpSocketRow> rows = parseTcpTable(readTable("/proc/net/tcp"), false);
    std::vector<TcpSocketRow> rows6 = parseTcpTable(readTable("/proc/net/tcp6"), true);
    rows.insert(rows.end(), rows6.begin(), rows6.end());
    return rows;
}
}  // namespace

std::vector<TcpSocketRow> readTcpTables() { return tablesFromProc(); }

PeerCheck makeLoopbackPeerCheck() {
    PeerCheck check;
    check.self = static_cast<uint32_t>(::getuid());
    check.listenerOwners = [](uint16_t port) { return loopbackListenerOwners(listeningRows(), port); };
    check.peerOwner = &clientOwner;
    return check;
}

}  // namespace lumerix
