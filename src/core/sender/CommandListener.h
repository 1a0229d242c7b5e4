#pragma once
// The command listener the freshly launched sender asks for its receiver: one thread serving
// 127.0.0.1:19319 from a single poll loop. Every connection has its own receive buffer and
// deadline; a request is judged once its whole frame (both end marks included) has arrived on
// that connection, or as empty when the peer closes or kReceiveTimeoutMs passes first. A valid
// 0x04 request from one of our own processes is answered with the parked connection info
// (take-once); anything else gets a single 0x00 byte. Answered connections stay open until their
// peer closes them; at most kMaxOpenConnections are held at a time (answered ones are closed
// first, then the oldest). Replies to a peer that has gone would raise SIGPIPE: the program must
// ignore that signal.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "dispatch/Clock.h"
#include "sender/ConnectionInfo.h"
#include "sender/PeerCheck.h"

namespace lumerix {

// The parked connection info: written by the connect action, taken once by the listener. It is
// handed out for kLifetimeMs after it was parked (the sender is launched right after); later it
// is dropped, so a login code does not wait forever for whoever asks.
class PendingConnectionSlot {
public:
    static constexpr double kLifetimeMs = 60000.0;

    explicit PendingConnectionSlot(std::shared_ptr<Clock> clock = systemClock());
    void setClock(std::shared_ptr<Clock> clock);  // null keeps the current one
    void park(ConnectionInfo info);               // replaces anything still pending
    std::optional<ConnectionInfo> take();
    bool isPending() const;

private:
    bool expiredLocked() const;

    mutable std::mutex mutex_;
    std::shared_ptr<Clock> clock_;
    std::optional<ConnectionInfo> pending_;
    double parkedAtMs_ = 0.0;
};

class CommandListener {
public:
    static constexpr int kMaxOpenConnections = 64;
    static constexpr int kListenBacklog = 64;
    static constexpr int kReceiveTimeoutMs = 2000;

    // closing: the application's closing flag, read after every request. Port 0 picks a free
    // port (tests); port() tells which once start() has returned. peers: whose requests are
    // answered; an empty check answers anyone (tests).
    CommandListener(PendingConnectionSlot& slot, const std::atomic<bool>& closing,
                    uint16_t port = kSenderCommandPort, PeerCheck peers = {});
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

    // How far the bytes received on one connection are from a request to judge.
    enum class RequestProgress {
        Incomplete,  // more bytes may still make it a request
        Complete,    // the whole frame is there (it may still fail its checksum or marks)
        Refused,     // no more bytes can make it one
    };
    static RequestProgress requestProgress(const uint8_t* received, size_t size);

    // The thread's result once it has ended (tests).
    std::optional<bool> result() const;
    uint16_t port() const { return port_.load(); }

private:
    struct Connection {
        int fd = -1;
        uint16_t peerPort = 0;
        double deadlineMs = 0.0;  // steady clock; an unanswered request is judged then
        bool answered = false;
        std::vector<uint8_t> received;
    };

    void announceSetupDone();
    void acceptConnections(int listenFd);
    // Reads what the peer sent; false when the connection is to be closed.
    bool readFrom(Connection& connection);
    void answer(Connection& connection);
    bool framingIsValid(const uint8_t* request) const;
    void makeRoom();
    void closeAllConnections();

    PendingConnectionSlot& slot_;
    const std::atomic<bool>& closing_;
    std::atomic<uint16_t> port_;
    const PeerCheck peers_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<int> listenFd_{-1};
    int wakePipe_[2] = {-1, -1};  // written by stop() to wake the thread's poll
    std::thread thread_;
    std::mutex setupMutex_;
    std::condition_variable setupDone_;
    bool setupFinished_ = false;
    mutable std::mutex resultMutex_;
    std::optional<bool> result_;
    std::deque<Connection> connections_;  // touched by the listener thread only (and after join)
};

}  // namespace lumerix
