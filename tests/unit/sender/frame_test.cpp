// The connection-info frame, the request parser and the hex dump, byte for byte.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <vector>

#include "dispatch/ManualQueue.h"
#include "log/Log.h"
#include "sender/CommandListener.h"
#include "sender/HexDump.h"
#include "sender/MainController.h"

namespace lumerix {
namespace {

using Bytes = std::vector<uint8_t>;

ConnectionInfo info(std::initializer_list<std::pair<const char*, QString>> entries) {
    ConnectionInfo map;
    for (const auto& [key, value] : entries) map.insert(QString::fromUtf8(key), value);
    return map;
}

Bytes hex(const char* digits) {
    const QByteArray b = QByteArray::fromHex(digits);
    return Bytes(b.begin(), b.end());
}

TEST(GeneralPacket, BuildsTheFrameLayout) {
    const struct {
        const char* name;
        ConnectionInfo userInfo;
        Bytes expectedPrefix;  // the first bytes of the buffer
        uint64_t expectedLength;
    } cases[] = {
        {"empty", {}, hex("0203030a000000000000000203"), 12},
        {"ip only", info({{"IP", QStringLiteral("192.168.1.10")}}),
         hex("02030316000c3139322e3136382e312e313000000000630203"), 24},
        {"Café is cut to four bytes",
         info({{"DeviceName", QString::fromUtf8("Caf\xC3\xA9")}}),
         {0x02, 0x03, 0x03, 0x0E, 0x00, 0x00, 0x04, 0x43, 0x61, 0x66, 0xC3, 0, 0, 0,
          static_cast<uint8_t>(0x04 + 0x43 + 0x61 + 0x66 + 0xC3), 0x02, 0x03},
         16},
        {"fixed field order, a key outside the set ignored",
         info({{"WiFiKey", QStringLiteral("e")},
               {"WiFiSSID", QStringLiteral("d")},
               {"LoginCode", QStringLiteral("c")},
               {"DeviceName", QStringLiteral("b")},
               {"IP", QStringLiteral("a")},
               {"Other", QStringLiteral("zz")}}),
         {0x02, 0x03, 0x03, 0x0F, 0x00, 1, 'a', 1, 'b', 1, 'c', 1, 'd', 1, 'e',
          static_cast<uint8_t>(5 + 'a' + 'b' + 'c' + 'd' + 'e'), 0x02, 0x03},
         17},
        {"an embedded zero ends the copy, the rest is zero-filled",
         info({{"IP", QStringLiteral("ab") + QChar(0) + QStringLiteral("c")}}),
         {0x02, 0x03, 0x03, 0x0E, 0x00, 4, 'a', 'b', 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(4 + 'a' + 'b'),
          0x02, 0x03},
         16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::array<uint8_t, kFrameBufferSize> buffer;
        buffer.fill(0xEE);
        ScopedLogCapture capture;
        EXPECT_EQ(MainController::GeneralPacket(buffer.data(), buffer.size(), c.userInfo), c.expectedLength);
        EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + static_cast<long>(c.expectedPrefix.size())),
                  c.expectedPrefix);
    }
}

TEST(GeneralPacket, LengthAndFieldLimits) {
    const QString f255(255, QLatin1Char('x'));
    const QString f256(256, QLatin1Char('x'));
    // 255 UTF-16 units but 256 UTF-8 bytes: too long for the scratch copy.
    const QString multibyte = QString(254, QLatin1Char('x')) + QString::fromUtf8("\xC3\xA9");
    const struct {
        const char* name;
        ConnectionInfo userInfo;
        uint64_t bufferLength;
        uint64_t expected;  // 0 = refused
    } cases[] = {
        {"255 characters fit", info({{"IP", f255}}), 1024, 255 + 12},
        {"256 characters refused", info({{"WiFiKey", f256}}), 1024, 0},
        {"256 UTF-8 bytes refused", info({{"DeviceName", multibyte}}), 1024, 0},
        {"L=300 over two length bytes", info({{"IP", f255}, {"DeviceName", QString(35, QLatin1Char('y'))}}),
         1024, 302},
        {"four fields of 255 overflow 1024",
         info({{"IP", f255}, {"DeviceName", f255}, {"LoginCode", f255}, {"WiFiSSID", f255}}), 1024, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> buffer(1400, 0xEE);
        ScopedLogCapture capture;
        EXPECT_EQ(MainController::GeneralPacket(buffer.data(), c.bufferLength, c.userInfo), c.expected);
        if (c.expected == 0) {
            EXPECT_EQ(buffer, std::vector<uint8_t>(1400, 0xEE)) << "a refusal writes nothing";
        } else {
            const uint64_t length = c.expected - 2;
            EXPECT_EQ(buffer[3], length & 0xFF);
            EXPECT_EQ(buffer[4], length >> 8);
            EXPECT_EQ(buffer[length + 2], 0x03);
            EXPECT_EQ(buffer[length + 3], 0xEE) << "nothing past L+2";
        }
    }
}

Bytes zeroPadded(const Bytes& head) {
    Bytes request(kFrameBufferSize, 0);
    std::copy(head.begin(), head.end(), request.begin());
    return request;
}

TEST(ParserCmd, JudgesRequestsAndHandsOutOnce) {
    Bytes longValid = {0x02, 0x03, 0x04, 0x2C, 0x01};  // L = 300
    longValid.resize(300, 0x01);
    longValid.push_back(static_cast<uint8_t>(295));
    longValid.insert(longValid.end(), {0x02, 0x03});
    // Valid if byte 3 were read unsigned (L = 133: checksum 0 at 133, end marks at 134).
    Bytes signedOnlyRefusal = {0x02, 0x03, 0x04, 0x85, 0x00};
    signedOnlyRefusal.resize(136, 0x00);
    signedOnlyRefusal[134] = 0x02;
    signedOnlyRefusal[135] = 0x03;

    const struct {
        const char* name;
        Bytes request;  // the head of a zeroed 1024-byte receive buffer
        bool accepted;
    } cases[] = {
        {"L=5, expected checksum 0", {0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x02, 0x03}, true},
        {"L=6 good checksum", {0x02, 0x03, 0x04, 0x06, 0x00, 0x41, 0x41, 0x02, 0x03}, true},
        {"L=6 bad checksum", {0x02, 0x03, 0x04, 0x06, 0x00, 0x41, 0x42, 0x02, 0x03}, false},
        {"one start mark is enough", {0x07, 0x03, 0x04, 0x05, 0x00, 0x00, 0x02, 0x03}, true},
        {"both start marks wrong", {0x07, 0x07, 0x04, 0x05, 0x00, 0x00, 0x02, 0x03}, false},
        {"command 0x03", {0x02, 0x03, 0x03, 0x05, 0x00, 0x00, 0x02, 0x03}, false},
        {"one end mark is enough", {0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x09, 0x03}, true},
        {"the other end mark is enough", {0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x02, 0x09}, true},
        {"both end marks wrong", {0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x09, 0x09}, false},
        {"L = 300 over two length bytes", longValid, true},
        {"L+2 just outside the buffer", {0x02, 0x03, 0x04, 0xFE, 0x04}, false},
        {"L byte 0x85 is -123 read signed", signedOnlyRefusal, false},
    };
    std::atomic<bool> closing{false};
    PendingConnectionSlot slot;
    CommandListener listener(slot, closing, 0);
    const ConnectionInfo parked =
        info({{"IP", QStringLiteral("10.0.0.7")}, {"DeviceName", QStringLiteral("Room")}});
    ScopedLogCapture capture;
    std::array<uint8_t, kFrameBufferSize> expectedFrame{};
    const uint64_t expectedLength =
        MainController::GeneralPacket(expectedFrame.data(), expectedFrame.size(), parked);

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // On a connection the bytes are judged only once the whole frame is there; a shorter
        // prefix of an acceptable request waits for more.
        using Progress = CommandListener::RequestProgress;
        const Progress whole = CommandListener::requestProgress(c.request.data(), c.request.size());
        if (c.accepted) {
            EXPECT_EQ(whole, Progress::Complete);
            for (size_t n = 0; n < c.request.size(); ++n)
                ASSERT_EQ(CommandListener::requestProgress(c.request.data(), n), Progress::Incomplete) << n;
        } else {
            EXPECT_NE(whole, Progress::Incomplete);
        }
        const Bytes request = zeroPadded(c.request);
        std::array<uint8_t, kFrameBufferSize> output{};
        EXPECT_EQ(listener.ParserCmd(request.data(), output.data(), output.size()), 0u) << "nothing parked";

        slot.park(parked);
        const uint64_t length = listener.ParserCmd(request.data(), output.data(), output.size());
        if (c.accepted) {
            ASSERT_EQ(length, expectedLength);
            EXPECT_EQ(Bytes(output.begin(), output.begin() + static_cast<long>(length)),
                      Bytes(expectedFrame.begin(), expectedFrame.begin() + static_cast<long>(length)));
            EXPECT_FALSE(slot.isPending()) << "taken once";
            EXPECT_EQ(listener.ParserCmd(request.data(), output.data(), output.size()), 0u) << "second ask";
        } else {
            EXPECT_EQ(length, 0u);
            EXPECT_TRUE(slot.isPending()) << "a refused request leaves it parked";
            slot.take();
        }
    }
}

// The parked receiver is handed out for a minute after it was parked, and not after.
TEST(PendingConnectionSlot, ExpiresOneMinuteAfterParking) {
    ScopedLogCapture capture;
    auto time = std::make_shared<VirtualTime>();
    PendingConnectionSlot slot(time);
    const ConnectionInfo parked = info({{"IP", QStringLiteral("10.0.0.7")}});
    for (const double waitedMs :
         {0.0, PendingConnectionSlot::kLifetimeMs, PendingConnectionSlot::kLifetimeMs + 1}) {
        SCOPED_TRACE(waitedMs);
        const bool stillThere = waitedMs <= PendingConnectionSlot::kLifetimeMs;
        slot.park(parked);
        time->advance(waitedMs);
        EXPECT_EQ(slot.isPending(), stillThere);
        EXPECT_EQ(slot.take(), stillThere ? std::optional(parked) : std::nullopt);
        EXPECT_FALSE(slot.take()) << "taken or dropped, never twice";
    }
    EXPECT_EQ(capture.count(QStringLiteral("Command listener: the parked connection details expired unasked "
                                           "after 60 s\n")),
              1);
    // Parking again starts a new minute.
    slot.park(parked);
    time->advance(PendingConnectionSlot::kLifetimeMs / 2);
    slot.park(parked);
    time->advance(PendingConnectionSlot::kLifetimeMs * 0.75);
    EXPECT_TRUE(slot.take());
}

TEST(HexDump, Lines) {
    Bytes sixteen(16);
    for (uint8_t i = 0; i < 16; ++i) sixteen[i] = i;
    const Bytes letters = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'};
    Bytes seventeen(17, 'z');
    seventeen[7] = 0x7F;
    seventeen[8] = ' ';

    struct DumpCase {
        const char* name;
        Bytes data;
        uint64_t base;
        std::string expected;
    };
    const std::vector<DumpCase> cases = {
        {"one full line", sixteen, 0,
         "[0000:0000] 00 01 02 03 04 05 06 07-08 09 0A 0B 0C 0D 0E 0F |........ ........|\n"},
        {"short line, no dash, no group space", letters, 0x10000,
         "[0001:0000] 41 42 43 44 45 46 47 48" + std::string(60 - 35, ' ') + "|ABCDEFGH|\n"},
        {"two lines, label advances, base wraps at 32 bits", seventeen, 0x1FFFFFFF8ull,
         "[FFFF:FFF8] 7A 7A 7A 7A 7A 7A 7A 7F-20 7A 7A 7A 7A 7A 7A 7A |zzzzzzz.  zzzzzzz|\n"
         "[0000:0008] 7A" +
             std::string(60 - 14, ' ') + "|z|\n"},
    };
    for (const DumpCase& c : cases) {
        SCOPED_TRACE(c.name);
        testing::internal::CaptureStdout();
        HexDump(c.data.data(), static_cast<uint32_t>(c.data.size()), c.base);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.expected);
    }
}

}  // namespace
}  // namespace lumerix
