#include "sender/MainController.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <vector>

#include "log/Log.h"

namespace lumerix {
namespace {

struct FrameField {
    const char* key;
    const char* logName;  // as it appears in the two log lines of the field
};

// Wire order of the five text fields.
constexpr std::array<FrameField, 5> kFields{{
    {"IP", "ip"},
    {"DeviceName", "DeviceName"},
    {"LoginCode", "LoginCode"},
    {"WiFiSSID", "WiFiSSID"},
    {"WiFiKey", "WiFiKey"},
}};

constexpr size_t kScratchSize = 256;
constexpr int kTimeoutSeconds = 30;

// A peer that closed raises SIGPIPE, which the program ignores (the app sets that up).
constexpr int kSendFlags = 0;

void printAndFlush(const char* message) {
    std::printf("%s", message);
    std::fflush(stdout);
}

// Logs why the listener on port is not taken as the sender's; true when it is ours. Before the
// connect no listener at all is fine (the connect then fails as usual); after it, one must be found.
bool listenerIsOurs(const PeerCheck& peers, uint16_t port, bool connected) {
    std::vector<uint32_t> owners;
    if (peers.listenersAreOurs(port, &owners)) return true;
    if (owners.empty() && !connected) return true;
    QString whose;
    for (const uint32_t uid : owners) {
        if (uid == peers.self) continue;
        whose += (whose.isEmpty() ? QString() : QStringLiteral(", ")) + QString::number(uid);
    }
    if (owners.empty()) {
        Log::logf(
            "SendDataToOndrel: no socket listening on 127.0.0.1:%u could be found to check; nothing sent\n",
            static_cast<unsigned>(port));
    } else {
        Log::logf(
            "SendDataToOndrel: the socket listening on 127.0.0.1:%u belongs to uid %s, not to this "
            "user (uid %u); nothing sent\n",
            static_cast<unsigned>(port), qUtf8Printable(whose), static_cast<unsigned>(peers.self));
    }
    return false;
}

}  // namespace

uint64_t MainController::GeneralPacket(uint8_t* buffer, uint64_t bufferLength,
                                       const ConnectionInfo& userInfo) {
    Log::write(QStringLiteral("GeneralPacket\n"));

    // Check every field before touching the buffer, so a refusal leaves it as it was.
    uint64_t frameLength = 5 + 3;  // header, checksum and end mark
    for (const FrameField& field : kFields) {
        const auto it = userInfo.constFind(QLatin1String(field.key));
        frameLength += 1;
        if (it == userInfo.constEnd()) continue;
        const QByteArray utf8 = it.value().toUtf8();
        if (static_cast<size_t>(utf8.size()) >= kScratchSize) {
            Log::logf("GeneralPacket refused: %s is %lld bytes long, at most %zu fit\n", field.key,
                      static_cast<long long>(utf8.size()), kScratchSize - 1);
            return 0;
        }
        frameLength += static_cast<uint64_t>(it.value().length());
    }
    if (buffer == nullptr || frameLength > bufferLength) {
        Log::logf("GeneralPacket refused: the frame needs %llu bytes, the buffer holds %llu\n",
                  static_cast<unsigned long long>(frameLength),
                  static_cast<unsigned long long>(bufferLength));
        return 0;
    }

    std::memset(buffer, 0, 8);
    buffer[0] = 0x02;
    buffer[1] = 0x03;
    buffer[2] = kCommandConnectionInfo;

    uint64_t pos = 5;
    for (const FrameField& field : kFields) {
        const auto it = userInfo.constFind(QLatin1String(field.key));
        const bool present = it != userInfo.constEnd();
        const QByteArray shown = present ? it.value().toUtf8() : QByteArrayLiteral("(null)");
        Log::logf("GeneralPacket %s: %s\n", field.logName, shown.constData());
        if (!present) {
            buffer[pos++] = 0;
        } else {
            const auto n = static_cast<uint64_t>(it.value().length());
            buffer[pos++] = static_cast<uint8_t>(n & 0xFF);
            if (n > 0) {
                // The length counts UTF-16 units but the bytes come from the UTF-8 form: copy n bytes,
                // stopping at the first zero and zero-filling the rest, as a bounded string copy does.
                char scratch[kScratchSize];
                std::snprintf(scratch, sizeof scratch, "%s", shown.constData());
                const size_t copied = strnlen(scratch, static_cast<size_t>(n));
                std::memcpy(buffer + pos, scratch, copied);
                std::memset(buffer + pos + copied, 0, static_cast<size_t>(n) - copied);
                pos += n;
            }
        }
        Log::logf("Finish GeneralPacket %s: %ld\n", field.logName, static_cast<long>(pos));
    }

    const uint64_t length = pos;
    buffer[3] = static_cast<uint8_t>(length & 0xFF);
    if (length >= 256) buffer[4] = static_cast<uint8_t>(length >> 8);

    int sum = 0;
    if (length >= 6) {
        for (uint64_t i = 5; i < length; ++i) sum += static_cast<int8_t>(buffer[i]);
    }
    buffer[length] = static_cast<uint8_t>(sum & 0xFF);
    buffer[length + 1] = 0x02;
    buffer[length + 2] = 0x03;

    QString text = QStringLiteral("GeneralPacket: ");
    for (uint64_t i = 0; i < length + 2; ++i) {
        // Widened as a signed value: 0x80 and above print as ffffff80 and so on.
        text += Log::format("%02x ", static_cast<unsigned>(static_cast<int>(static_cast<int8_t>(buffer[i]))));
    }
    text += QLatin1Char('\n');
    Log::write(text + QLatin1Char('\n'));

    return length + 2;
}

DeliveryOutcome MainController::SendDataToOndrel(const uint8_t* buffer, uint64_t bufferLength, uint16_t port,
                                                 const PeerCheck& peers) {
    // Checked before and after the connect: a listener that changes hands in between is not trusted.
    if (!listenerIsOurs(peers, port, false)) return DeliveryOutcome::ForeignListener;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd == -1) {
        printAndFlush("create socket fail");
        return DeliveryOutcome::Unreachable;  // every later step would only fail on the invalid descriptor
    }

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = inet_addr("127.0.0.1");

    const timeval sendTimeout{kTimeoutSeconds, 0};
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout) != 0) {
        printAndFlush("Set socket send timout fail");
    }
    ::fcntl(fd, F_SETFL, O_NONBLOCK);

    bool connected = true;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
        // poll rather than select: a descriptor beyond FD_SETSIZE must not overflow an fd_set.
        pollfd waitFor{fd, POLLOUT, 0};
        int ready;
        do {
            ready = ::poll(&waitFor, 1, kTimeoutSeconds * 1000);
        } while (ready == -1 && errno == EINTR);
        connected = false;
        if (ready > 0) {
            int32_t error = 0;
            socklen_t errorLength = sizeof error;
            connected = ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &errorLength) == 0 && error == 0;
        }
        if (!connected) printAndFlush("socket connect fail");
    }

    if (connected && !listenerIsOurs(peers, port, true)) {
        ::close(fd);
        return DeliveryOutcome::ForeignListener;
    }

    int blocking = 0;
    ::ioctl(fd, FIONBIO, &blocking);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
    const ssize_t sent = ::send(fd, buffer, static_cast<size_t>(bufferLength), kSendFlags);
    ::close(fd);
    const bool whole = connected && sent >= 0 && static_cast<uint64_t>(sent) == bufferLength;
    return whole ? DeliveryOutcome::Delivered : DeliveryOutcome::Unreachable;
}

}  // namespace lumerix
