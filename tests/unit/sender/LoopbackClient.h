#pragma once
// Small blocking loopback helpers for the socket tests; every wait is bounded so a fault fails
// the test instead of hanging it.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

namespace lumerix::testing_loopback {

using Bytes = std::vector<uint8_t>;
constexpr int kWaitMs = 10000;

inline sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A socket bound to 127.0.0.1 on a free port; listening when asked. Returns the descriptor.
inline int boundSocket(uint16_t* port, bool listening) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin_port);
    if (listening) ::listen(fd, 16);
    return fd;
}

inline int connectTo(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Reads until end of stream, until `upTo` bytes arrived, or until nothing came for kWaitMs.
inline Bytes readReply(int fd, size_t upTo = SIZE_MAX) {
    Bytes out;
    uint8_t chunk[2048];
    while (out.size() < upTo) {
        pollfd wait{fd, POLLIN, 0};
        if (::poll(&wait, 1, kWaitMs) <= 0) break;
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) break;
        out.insert(out.end(), chunk, chunk + n);
    }
    return out;
}

// One request on a fresh connection, our side half-closed after sending; the whole reply.
inline Bytes askListener(uint16_t port, const Bytes& request) {
    const int fd = connectTo(port);
    if (fd == -1) return {};
    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    Bytes reply = readReply(fd);
    ::close(fd);
    return reply;
}

}  // namespace lumerix::testing_loopback
