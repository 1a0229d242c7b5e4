// Delivery to the sender and the command listener over real loopback sockets (free ports only).
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <thread>

#include "log/Log.h"
#include "sender/CommandListener.h"
#include "sender/LoopbackClient.h"
#include "sender/MainController.h"

namespace lumerix {
namespace {

using namespace testing_loopback;

const Bytes kRequest = {0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x02, 0x03};

TEST(SendDataToOndrel, DeliversExactlyTheCountThenEndOfStream) {
    for (const size_t size : {size_t{24}, size_t{0}, size_t{1023}}) {
        SCOPED_TRACE(size);
        Bytes payload(size);
        for (size_t i = 0; i < size; ++i) payload[i] = static_cast<uint8_t>(i * 7 + 1);
        uint16_t port = 0;
        const int server = boundSocket(&port, true);

        testing::internal::CaptureStdout();
        std::thread sender([&] { MainController::SendDataToOndrel(payload.data(), payload.size(), port); });
        const int connection = ::accept(server, nullptr, nullptr);
        ASSERT_NE(connection, -1);
        const Bytes received = readReply(connection);
        sender.join();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(received, payload);
        ::close(connection);
        ::close(server);
    }
}

TEST(SendDataToOndrel, RefusedConnectionIsPrintedWithoutLineEnd) {
    uint16_t port = 0;
    const int notListening = boundSocket(&port, false);  // holds the port so nobody else listens there
    const uint8_t frame[12] = {0x02, 0x03, 0x03, 0x0A};
    testing::internal::CaptureStdout();
    MainController::SendDataToOndrel(frame, sizeof frame, port);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket connect fail");
    ::close(notListening);
}

class ListenerTest : public ::testing::Test {
protected:
    void SetUp() override { listener.start(); }
    ScopedLogCapture capture;
    std::atomic<bool> closing{false};
    PendingConnectionSlot slot;
    CommandListener listener{slot, closing, 0};
};

TEST_F(ListenerTest, AnswersWithTheParkedFrameOnceThenZero) {
    ASSERT_NE(listener.port(), 0);
    const ConnectionInfo parked = {{QStringLiteral("IP"), QStringLiteral("192.168.1.10")},
                                   {QStringLiteral("DeviceName"), QStringLiteral("Room 4")}};
    std::array<uint8_t, kFrameBufferSize> frame{};
    const uint64_t frameLength = MainController::GeneralPacket(frame.data(), frame.size(), parked);

    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes{0x00}) << "nothing parked yet";
    slot.park(parked);
    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes(frame.begin(), frame.begin() + frameLength));
    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes{0x00});
    EXPECT_FALSE(slot.isPending());

    EXPECT_EQ(capture.count(QStringLiteral("recv data from sender\n")), 3);
    EXPECT_EQ(capture.count(QStringLiteral("Send nothing\n")), 2);
    EXPECT_EQ(capture.count(QStringLiteral("Send data to sender, length:%1\n").arg(frameLength)), 1);
}

TEST_F(ListenerTest, ShorterRequestReadsStaleBytesOfALongerOne) {
    // A valid L=6 request, then "02 03 04 06": the checksum and end marks come from the first one.
    EXPECT_EQ(askListener(listener.port(), {0x02, 0x03, 0x04, 0x06, 0x00, 0x41, 0x41, 0x02, 0x03}),
              Bytes{0x00});
    slot.park({{QStringLiteral("IP"), QStringLiteral("1")}});
    const Bytes reply = askListener(listener.port(), {0x02, 0x03, 0x04, 0x06});
    ASSERT_EQ(reply.size(), 13u);
    EXPECT_EQ(reply[2], 0x03);
}

TEST_F(ListenerTest, SecondListenerOnTheSamePortFailsAndTheFirstRunsOn) {
    CommandListener second(slot, closing, listener.port());
    second.start();
    EXPECT_EQ(second.result(), std::optional<bool>(false));
    EXPECT_TRUE(capture.contains(QStringLiteral("bind port failed.\n")));
    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes{0x00});
}

// Waits (bounded) for the listener thread to end by itself.
bool endsBy(const CommandListener& listener) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!listener.result().has_value() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    return listener.result() == std::optional<bool>(true);
}

TEST_F(ListenerTest, EndsOnTheClosingFlagAfterTheNextRequestOrOnStop) {
    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes{0x00});
    EXPECT_FALSE(listener.result().has_value());
    closing = true;
    askListener(listener.port(), kRequest);  // served or not, depending on when the flag is seen
    EXPECT_TRUE(endsBy(listener));
    EXPECT_EQ(connectTo(listener.port()), -1) << "the listening socket is closed";

    std::atomic<bool> alreadyClosing{true};
    CommandListener never(slot, alreadyClosing, 0);
    never.start();
    EXPECT_TRUE(endsBy(never));

    std::atomic<bool> open{false};
    CommandListener idle(slot, open, 0);
    idle.start();
    idle.stop();  // wakes the blocked wait without any connection
    EXPECT_EQ(idle.result(), std::optional<bool>(true));
}

TEST_F(ListenerTest, KeepsAnsweredConnectionsOpenUntilThePeerCloses) {
    const int fd = connectTo(listener.port());
    ASSERT_NE(fd, -1);
    ::send(fd, kRequest.data(), kRequest.size(), MSG_NOSIGNAL);
    EXPECT_EQ(readReply(fd, 1), Bytes{0x00});
    // The next request is served although this peer still holds its connection.
    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes{0x00});
    // Later bytes on the answered connection are not requests and get no reply.
    ::send(fd, kRequest.data(), kRequest.size(), MSG_NOSIGNAL);
    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes{0x00});
    pollfd wait{fd, POLLIN, 0};
    EXPECT_EQ(::poll(&wait, 1, 0), 0) << "still open, nothing more sent";
    ::close(fd);
}

}  // namespace
}  // namespace lumerix
