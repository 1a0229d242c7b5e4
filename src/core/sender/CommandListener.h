#pragma once
// The command listener the freshly launched sender asks for its receiver: one thread accepting
// on 127.0.0.1:19319, answering a valid 0x04 request with the parked connection info (take-once)
// or a single 0x00 byte. A receive that waits longer than kReceiveTimeoutMs counts as empty;
// connections stay open until their peer closes them, at most kMaxOpenConnections at a time
// (the oldest is closed beyond that). Replies to a peer that has gone would raise SIGPIPE: the
// program must ignore that signal.
#include <atomic>
#include <condition_variable>
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

    // closing: the application's closing flag, read after every request. Port 0 picks a free
    // port (tests); port() tells which once start() has returned.
    CommandListener(PendingConnectionSlot& slot, const std::atomic<bool>& closing,
                    uint16_t port = kSenderCommandPort);
    ~CommandListener();  // stops and joins the thread
    CommandListener(const CommandListener&) = delete;
    CommandListener& operator=(const CommandListener&) = delete;

    // Runs ListenCmdFromSenderThread on its own thread and returns once the socket listens (or
    // could not be set up). Only the first call does anything.
    void start();
    // Wakes the thread and waits for it to end.
    void stop();
    // The thread body; false when the socket could not be created or bound.
    bool ListenCmdFromSenderThread();
    // Checks a request (a kFrameBufferSize-byte receive buffer) and writes the reply; returns the
    // reply length, 0 for nothing to send.
    uint64_t ParserCmd(const uint8_t* request, uint8_t* output, uint64_t outputLength);

    // The thread's result once it has ended (tests).
    std::optional<bool> result() const;
    uint16_t port() const { return port_.load(); }

private:
    void announceSetupDone();
    void serveConnection(int connection, uint8_t* receiveBuffer, uint8_t* replyBuffer);
    void keepConnection(int connection);
    void releaseClosedConnections(const std::deque<int>& readable);
    void closeAllConnections();

    PendingConnectionSlot& slot_;
    const std::atomic<bool>& closing_;
    std::atomic<uint16_t> port_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<int> listenFd_{-1};
    int wakePipe_[2] = {-1, -1};  // written by stop() to wake the thread's poll
    std::thread thread_;
    std::mutex setupMutex_;
    std::condition_variable setupDone_;
    bool setupFinished_ = false;
    mutable std::mutex resultMutex_;
    std::optional<bool> result_;
    std::deque<int> openConnections_;  // touched by the listener thread only (and after join)
};

}  // namespace lumerix
