// Delivery to the sender and the command listener over real loopback sockets (free ports only).
#include <gtest/gtest.h>

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

TEST(SendDataToOndrel, DeliversExactlyTheCountThenEndOfStream) {
    for (const size_t size : {size_t{24}, size_t{0}}) {
        SCOPED_TRACE(size);
        Bytes payload(size);
        for (size_t i = 0; i < size; ++i) payload[i] = static_cast<uint8_t>(i * 7 + 1);
        uint16_t port = 0;
        const int server = boundSocket(&port, true);
        testing::internal::CaptureStdout();
        bool delivered = false;
        std::thread sender(
            [&] { delivered = MainController::SendDataToOndrel(payload.data(), payload.size(), port); });
        const int connection = ::accept(server, nullptr, nullptr);
        ASSERT_NE(connection, -1);
        EXPECT_EQ(readReply(connection), payload);
        sender.join();
        EXPECT_TRUE(delivered);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        ::close(connection);
        ::close(server);
    }

    uint16_t port = 0;
    const int notListening = boundSocket(&port, false);  // holds the port so nobody else listens there
    testing::internal::CaptureStdout();
    EXPECT_FALSE(MainController::SendDataToOndrel(kRequest.data(), kRequest.size(), port));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket connect fail");
    ::close(notListening);
}

TEST(CommandListener, AnswersWithTheParkedFrameOnceThenZeroAndRefusesASecondBind) {
    ScopedLogCapture capture;
    std::atomic<bool> closing{false};
    PendingConnectionSlot slot;
    CommandListener listener{slot, closing, 0};
    listener.start();
    ASSERT_NE(listener.port(), 0);
    const ConnectionInfo parked = {{QStringLiteral("IP"), QStringLiteral("192.168.1.10")},
                                   {QStringLiteral("DeviceName"), QStringLiteral("Room 4")}};
    std::array<uint8_t, kFrameBufferSize> frame{};
    const uint64_t frameLength = MainController::GeneralPacket(frame.data(), frame.size(), parked);

    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes{0x00}) << "nothing parked yet";
    slot.park(parked);
    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes(frame.begin(), frame.begin() + frameLength));
    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes{0x00});
    EXPECT_EQ(capture.count(QStringLiteral("Send data to sender, length:%1\n").arg(frameLength)), 1);

    // The receive buffer keeps what a longer request left: a request cut before its end marks
    // finds them there and is answered.
    slot.park(parked);
    EXPECT_EQ(askListener(listener.port(), Bytes(kRequest.begin(), kRequest.begin() + 6)),
              Bytes(frame.begin(), frame.begin() + frameLength));

    CommandListener second(slot, closing, listener.port());
    second.start();
    EXPECT_EQ(second.result(), std::optional<bool>(false));
    EXPECT_TRUE(capture.contains(QStringLiteral("bind port failed.\n")));
    EXPECT_EQ(askListener(listener.port(), kRequest), Bytes{0x00}) << "the first runs on";
}

}  // namespace
}  // namespace lumerix
