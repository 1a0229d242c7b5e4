// Delivery to the sender and the command listener over real loopback sockets (free ports only).
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>

#include "log/Log.h"
#include "sender/CommandListener.h"
#include "sender/LoopbackClient.h"
#include "sender/MainController.h"

namespace lumerix {
namespace {

using namespace testing_loopback;

const Bytes kRequest = {0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x02, 0x03};
constexpr uint32_t kUs = 1000;
constexpr uint32_t kOther = 1001;

const ConnectionInfo kParked = {{QStringLiteral("IP"), QStringLiteral("192.168.1.10")},
                                {QStringLiteral("DeviceName"), QStringLiteral("Room 4")}};

Bytes parkedFrame() {
    std::array<uint8_t, kFrameBufferSize> frame{};
    const uint64_t length = MainController::GeneralPacket(frame.data(), frame.size(), kParked);
    return Bytes(frame.begin(), frame.begin() + static_cast<long>(length));
}

// True when some captured line holds part.
bool logged(const ScopedLogCapture& capture, const char* part) {
    const QStringList lines = capture.lines();
    return std::ranges::any_of(
        lines, [part](const QString& line) { return line.contains(QString::fromUtf8(part)); });
}

// A listener started on a free port, with a slot of its own.
struct Listening {
    explicit Listening(PeerCheck peers = {}) : listener(slot, closing, 0, std::move(peers)) {
        listener.start();
    }
    uint16_t port() const { return listener.port(); }
    std::atomic<bool> closing{false};
    PendingConnectionSlot slot;
    CommandListener listener;
};

// What the one connection waiting on server carried; nullopt when nobody connected.
std::optional<Bytes> receivedOnce(int server) {
    pollfd wait{server, POLLIN, 0};
    if (::poll(&wait, 1, 0) <= 0) return std::nullopt;
    const int connection = ::accept(server, nullptr, nullptr);
    Bytes received = readReply(connection);
    ::close(connection);
    return received;
}

TEST(SendDataToOndrel, DeliversExactlyTheCountThenEndOfStream) {
    for (const size_t size : {size_t{24}, size_t{0}}) {
        SCOPED_TRACE(size);
        Bytes payload(size);
        for (size_t i = 0; i < size; ++i) payload[i] = static_cast<uint8_t>(i * 7 + 1);
        uint16_t port = 0;
        const int server = boundSocket(&port, true);
        testing::internal::CaptureStdout();
        DeliveryOutcome outcome = DeliveryOutcome::Unreachable;
        std::thread sender(
            [&] { outcome = MainController::SendDataToOndrel(payload.data(), payload.size(), port); });
        const int connection = ::accept(server, nullptr, nullptr);
        ASSERT_NE(connection, -1);
        EXPECT_EQ(readReply(connection), payload);
        sender.join();
        EXPECT_EQ(outcome, DeliveryOutcome::Delivered);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        ::close(connection);
        ::close(server);
    }

    uint16_t port = 0;
    const int notListening = boundSocket(&port, false);  // holds the port so nobody else listens there
    testing::internal::CaptureStdout();
    EXPECT_EQ(MainController::SendDataToOndrel(kRequest.data(), kRequest.size(), port),
              DeliveryOutcome::Unreachable);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket connect fail");
    ::close(notListening);
}

// The port's listener must be ours before and after the connect; otherwise not one byte leaves.
TEST(SendDataToOndrel, SendsOnlyToAListenerOfOurs) {
    const DeliveryOutcome ours = DeliveryOutcome::Delivered, foreign = DeliveryOutcome::ForeignListener;
    const struct {
        const char* name;
        std::vector<std::vector<uint32_t>> owners;  // answer to each lookup in turn
        DeliveryOutcome outcome;
        bool connects;
        const char* logged;
    } cases[] = {
        {"ours", {{kUs}, {kUs}}, ours, true, nullptr},
        {"another user's", {{kOther}}, foreign, false, "belongs to uid 1001"},
        {"ours and another's on the same port", {{kUs, kOther}}, foreign, false, "belongs to uid 1001"},
        {"changed hands during the connect", {{kUs}, {kOther}}, foreign, true, "not to this user (uid 1000)"},
        {"gone from the table after the connect", {{}, {}}, foreign, true, "could be found to check"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScopedLogCapture capture;
        uint16_t port = 0;
        const int server = boundSocket(&port, true);
        size_t lookups = 0;
        PeerCheck peers;
        peers.self = kUs;
        peers.listenerOwners = [&](uint16_t asked) {
            EXPECT_EQ(asked, port);
            return c.owners.at(std::min(lookups++, c.owners.size() - 1));
        };
        testing::internal::CaptureStdout();
        EXPECT_EQ(MainController::SendDataToOndrel(kRequest.data(), kRequest.size(), port, peers), c.outcome);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(receivedOnce(server),
                  c.connects ? std::optional(c.outcome == DeliveryOutcome::Delivered ? kRequest : Bytes{})
                             : std::nullopt);
        EXPECT_TRUE(!c.logged || logged(capture, c.logged))
            << capture.lines().join(QLatin1Char('|')).toStdString();
        ::close(server);
    }
}

TEST(CommandListener, AnswersWithTheParkedFrameOnceThenZeroAndRefusesASecondBind) {
    ScopedLogCapture capture;
    Listening l;
    ASSERT_NE(l.port(), 0);
    const Bytes frame = parkedFrame();

    EXPECT_EQ(askListener(l.port(), kRequest), Bytes{0x00}) << "nothing parked yet";
    l.slot.park(kParked);
    EXPECT_EQ(askListener(l.port(), kRequest), frame);
    EXPECT_EQ(askListener(l.port(), kRequest), Bytes{0x00});
    EXPECT_EQ(capture.count(QStringLiteral("Send data to sender, length:%1\n").arg(frame.size())), 1);

    CommandListener second(l.slot, l.closing, l.port());
    second.start();
    EXPECT_EQ(second.result(), std::optional<bool>(false));
    EXPECT_TRUE(capture.contains(QStringLiteral("bind port failed.\n")));
    EXPECT_EQ(askListener(l.port(), kRequest), Bytes{0x00}) << "the first runs on";
}

TEST(CommandListener, JudgesEachConnectionOnItsOwnBytes) {
    ScopedLogCapture quiet;
    Listening l;
    const Bytes frame = parkedFrame();
    EXPECT_EQ(askListener(l.port(), kRequest), Bytes{0x00}) << "a whole request, nothing parked";

    // Each connection starts empty: a request cut before its end marks is not completed by what
    // an earlier connection sent, and nothing is handed out.
    l.slot.park(kParked);
    EXPECT_EQ(askListener(l.port(), Bytes(kRequest.begin(), kRequest.begin() + 6)), Bytes{0x00});
    EXPECT_EQ(askListener(l.port(), {}), Bytes{0x00});
    EXPECT_TRUE(l.slot.isPending());

    // A request that arrives in pieces on one connection is answered once its last byte is in.
    const int fd = connectTo(l.port());
    const int noDelay = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    for (const uint8_t byte : kRequest) ::send(fd, &byte, 1, MSG_NOSIGNAL);
    EXPECT_EQ(readReply(fd, frame.size()), frame);
    ::close(fd);
}

// Only a peer whose socket is ours gets the parked frame; a refusal leaves it parked.
TEST(CommandListener, AnswersOnlyOurOwnProcesses) {
    const struct {
        const char* name;
        std::optional<uint32_t> owner;
        bool answered;
        const char* logged;
    } cases[] = {
        {"ours", kUs, true, nullptr},
        {"another user's", kOther, false, "belongs to uid 1001, not to this user (uid 1000)"},
        {"not found", std::nullopt, false, "its owner could not be found"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScopedLogCapture capture;
        std::atomic<uint16_t> askedPeerPort{0};
        PeerCheck peers;
        peers.self = kUs;
        peers.peerOwner = [&](uint16_t, uint16_t peerPort) {
            askedPeerPort = peerPort;
            return c.owner;
        };
        Listening l(peers);
        l.slot.park(kParked);

        const int fd = connectTo(l.port());
        sockaddr_in local{};
        socklen_t length = sizeof local;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length);
        ::send(fd, kRequest.data(), kRequest.size(), MSG_NOSIGNAL);
        const Bytes reply = readReply(fd, c.answered ? parkedFrame().size() : 1);
        ::close(fd);

        EXPECT_EQ(askedPeerPort.load(), ntohs(local.sin_port)) << "looked up by the peer's own port";
        EXPECT_EQ(reply, c.answered ? parkedFrame() : Bytes{0x00});
        EXPECT_EQ(l.slot.isPending(), !c.answered);
        EXPECT_TRUE(!c.logged || logged(capture, c.logged))
            << capture.lines().join(QLatin1Char('|')).toStdString();
    }
}

// Silent peers cost nothing: a request behind twenty of them is answered long before any of
// their deadlines, where waiting on each in turn would take 20 x kReceiveTimeoutMs.
TEST(CommandListener, SilentConnectionsDoNotHoldUpARequest) {
    ScopedLogCapture quiet;
    Listening l;
    l.slot.park(kParked);
    std::vector<int> silent;
    silent.reserve(20);
    for (int i = 0; i < 20; ++i) silent.push_back(connectTo(l.port()));

    const int fd = connectTo(l.port());
    ::send(fd, kRequest.data(), kRequest.size(), MSG_NOSIGNAL);
    pollfd wait{fd, POLLIN, 0};
    ASSERT_EQ(::poll(&wait, 1, CommandListener::kReceiveTimeoutMs / 2), 1)
        << "not answered before a deadline";
    EXPECT_EQ(readReply(fd, parkedFrame().size()), parkedFrame());
    ::close(fd);

    // Each silent one is judged empty at its own deadline.
    for (const int s : silent) {
        EXPECT_EQ(readReply(s, 1), Bytes{0x00});
        ::close(s);
    }
}

}  // namespace
}  // namespace lumerix
