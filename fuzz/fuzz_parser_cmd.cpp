// Feeds arbitrary requests to the command parser the way the listener does: into a zeroed
// receive buffer of the listener's size, at most one byte short of it.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "QuietLog.h"
#include "log/Log.h"
#include "sender/CommandListener.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    lumerix::fuzz::quietLog();
    static std::atomic<bool> closing{false};
    static lumerix::PendingConnectionSlot slot;
    static lumerix::CommandListener listener(slot, closing, 0);  // never started: the parser only

    uint8_t request[lumerix::kFrameBufferSize] = {};
    uint8_t reply[lumerix::kFrameBufferSize] = {};
    const size_t used = size < sizeof request - 1 ? size : sizeof request - 1;
    std::memcpy(request, data, used);

    // Park on every other input so both the refusal and the frame path run.
    if (used > 0 && (data[0] & 1)) {
        slot.park(
            {{QStringLiteral("IP"), QStringLiteral("192.168.1.10")},
             {QStringLiteral("DeviceName"), QString::fromUtf8(reinterpret_cast<const char*>(data),
                                                              static_cast<int>(used < 64 ? used : 64))}});
    }
    // The listener stops reading a connection once its bytes are refused: no request the
    // parser would accept may be refused that early.
    const auto progress = lumerix::CommandListener::requestProgress(data, used);
    const uint64_t length = listener.ParserCmd(request, reply, sizeof reply);
    if (length != 0 && progress == lumerix::CommandListener::RequestProgress::Refused) __builtin_trap();
    if (length > sizeof reply) __builtin_trap();
    if (length != 0 && (reply[0] != 0x02 || reply[2] != 0x03)) __builtin_trap();
    slot.take();
    return 0;
}
