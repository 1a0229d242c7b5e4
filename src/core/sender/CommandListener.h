#pragma once
// The command listener the freshly launched sender asks for its receiver: one thread accepting
// on 127.0.0.1:19319, answering a valid 0x04 request with the parked connection info (take-once)
// or a single 0x00 byte.
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "sender/ConnectionInfo.h"

namespace lumerix {

// The parked connection info: written by the connect action, taken once by the listener.
class PendingConnectionSlot {
public:
    void park(ConnectionInfo info);  // replaces anything still pending
    std::optional<ConnectionInfo> take();
    bool isPending() const;

private:
    mutable std::mutex mutex_;
    std::optional<ConnectionInfo> pending_;
};

class CommandListener {
public:
    static constexpr int kMaxOpenConnections = 64;
    static constexpr int kReceiveTimeoutMs = 2000;

    // closing: the application's closing flag, read after every request.
    CommandListener(PendingConnectionSlot& slot, const std::atomic<bool>& closing,
                    uint16_t port = kSenderCommandPort);
    ~CommandListener();  // stops and joins the thread

    // Detaches the listener thread (ListenCmdFromSenderThread).
    void start();
    // Wakes the thread and waits for it to end.
    void stop();
    // The thread body; false when the socket could not be created or bound.
    bool ListenCmdFromSenderThread();
    // Checks a request and writes the reply; returns the reply length, 0 for nothing to send.
    uint64_t ParserCmd(const uint8_t* request, uint8_t* output, uint64_t outputLength);

    // The thread's result once it has ended (tests).
    std::optional<bool> result() const;
    uint16_t port() const { return port_; }

private:
    PendingConnectionSlot& slot_;
    const std::atomic<bool>& closing_;
    uint16_t port_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<int> listenFd_{-1};
    std::thread thread_;
    mutable std::mutex resultMutex_;
    std::optional<bool> result_;
    std::deque<int> openConnections_;
};

}  // namespace lumerix
