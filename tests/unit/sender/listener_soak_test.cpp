// A long day of requests against one real listener: descriptors stay bounded and every parked
// receiver reaches the next valid request exactly once.
#include <dirent.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <deque>
#include <random>

#include "log/Log.h"
#include "sender/CommandListener.h"
#include "sender/LoopbackClient.h"
#include "sender/MainController.h"

namespace lumerix {
namespace {

using namespace testing_loopback;

int openDescriptors() {
    int count = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(dir)) count += entry->d_name[0] != '.';
        ::closedir(dir);
    }
    return count - 1;  // the directory stream itself
}

TEST(CommandListenerSoak, TwentyThousandRequestsStayBoundedAndHandOutOnce) {
    constexpr int kRequests = 20000;
    constexpr size_t kHeldByClients = 80;  // clients that never close, more than the listener keeps
    ScopedLogCapture quiet;
    std::atomic<bool> closing{false};
    PendingConnectionSlot slot;
    const int baseline = openDescriptors();
    auto listener = std::make_unique<CommandListener>(slot, closing, 0);
    listener->start();
    const uint16_t port = listener->port();
    const Bytes valid = {0x02, 0x03, 0x04, 0x06, 0x00, 0x41, 0x41, 0x02, 0x03};
    std::mt19937 random(20261123);
    std::deque<int> held;
    int peak = 0;

    for (int sent = 0; sent < kRequests; ++sent) {
        switch (sent % 4) {
            case 0: {  // park a receiver: the next valid request gets it, the one after does not
                const ConnectionInfo info{
                    {QStringLiteral("IP"), QStringLiteral("10.0.%1.%2").arg(sent >> 8).arg(sent & 0xFF)}};
                slot.park(info);
                std::array<uint8_t, kFrameBufferSize> frame{};
                const uint64_t length = MainController::GeneralPacket(frame.data(), frame.size(), info);
                ASSERT_EQ(askListener(port, valid), Bytes(frame.begin(), frame.begin() + length)) << sent;
                ASSERT_EQ(askListener(port, valid), Bytes{0x00}) << sent;
                break;
            }
            case 1: {  // random bytes
                Bytes junk(3 + random() % 40);
                for (auto& b : junk) b = static_cast<uint8_t>(random());
                junk[2] = 0x04;
                ASSERT_EQ(askListener(port, junk), Bytes{0x00}) << sent;
                break;
            }
            case 2:  // connect and close at once without a word
                ::close(connectTo(port));
                break;
            default: {  // a client that keeps its connection after the answer
                const int fd = connectTo(port);
                ASSERT_NE(fd, -1);
                ::send(fd, valid.data(), valid.size(), MSG_NOSIGNAL);
                ASSERT_EQ(readReply(fd, 1), Bytes{0x00}) << sent;
                held.push_back(fd);
                if (held.size() > kHeldByClients) {
                    ::close(held.front());
                    held.pop_front();
                }
            }
        }
        if (sent % 400 == 0) peak = std::max(peak, openDescriptors());
    }
    // Ours: the held clients, at most kMaxOpenConnections on the listener side, a few fixed ones.
    EXPECT_LE(peak - baseline, static_cast<int>(kHeldByClients) + CommandListener::kMaxOpenConnections + 8);
    for (const int fd : held) ::close(fd);
    listener.reset();
    EXPECT_EQ(openDescriptors(), baseline) << "everything released after stop";
}

}  // namespace
}  // namespace lumerix
