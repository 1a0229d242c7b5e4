#include "sender/CommandListener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <vector>

#include "log/Log.h"
#include "sender/MainController.h"

namespace lumerix {
namespace {

constexpr size_t kMaxReceive = kFrameBufferSize - 1;  // at most this much is read per request
constexpr size_t kRequestReserve = 16;
// Never stall on one peer. A reply to a peer that has gone raises SIGPIPE, which the program
// ignores (the app sets that up), so the send just fails.
constexpr int kReplyFlags = MSG_DONTWAIT;

double steadyMs() {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void closeFd(int fd) {
    while (::close(fd) == -1 && errno == EINTR) {
    }
}

// Close-on-exec, and non-blocking when asked; false when fcntl refuses.
bool setDescriptorFlags(int fd, bool nonBlocking) {
    if (::fcntl(fd, F_SETFD, FD_CLOEXEC) == -1) return false;
    if (!nonBlocking) return true;
    const int flags = ::fcntl(fd, F_GETFL);
    return flags != -1 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1;
}

}  // namespace

PendingConnectionSlot::PendingConnectionSlot(std::shared_ptr<Clock> clock) : clock_(std::move(clock)) {
    if (!clock_) clock_ = systemClock();
}

void PendingConnectionSlot::setClock(std::shared_ptr<Clock> clock) {
    if (!clock) return;
    std::lock_guard lock(mutex_);
    clock_ = std::move(clock);
}

void PendingConnectionSlot::park(ConnectionInfo info) {
    std::lock_guard lock(mutex_);
    pending_ = std::move(info);
    parkedAtMs_ = clock_->monotonicMs();
}

bool PendingConnectionSlot::expiredLocked() const {
    return pending_ && clock_->monotonicMs() - parkedAtMs_ > kLifetimeMs;
}

std::optional<ConnectionInfo> PendingConnectionSlot::take() {
    std::lock_guard lock(mutex_);
    std::optional<ConnectionInfo> taken;
    if (expiredLocked()) {
        Log::logf("Command listener: the parked connection details expired unasked after %.0f s\n",
                  kLifetimeMs / 1000.0);
        pending_.reset();
        return taken;
    }
    taken.swap(pending_);
    return taken;
}

bool PendingConnectionSlot::isPending() const {
    std::lock_guard lock(mutex_);
    return pending_.has_value() && !expiredLocked();
}

CommandListener::CommandListener(PendingConnectionSlot& slot, const std::atomic<bool>& closing, uint16_t port,
                                 PeerCheck peers)
    : slot_(slot), closing_(closing), port_(port), peers_(std::move(peers)) {
    if (::pipe(wakePipe_) != 0 || !setDescriptorFlags(wakePipe_[0], true) ||
        !setDescriptorFlags(wakePipe_[1], true)) {
        Log::logf("Command listener: no wake pipe (%s); stop waits for the next request\n",
                  std::strerror(errno));
        for (int& fd : wakePipe_) {
            if (fd != -1) closeFd(fd);
            fd = -1;
        }
    }
}

CommandListener::~CommandListener() {
    stop();
    for (int& fd : wakePipe_) {
        if (fd != -1) closeFd(fd);
        fd = -1;
    }
}

void CommandListener::start() {
    if (thread_.joinable()) return;
    {
        std::lock_guard lock(setupMutex_);
        setupFinished_ = false;
    }
    thread_ = std::thread([this] {
        const bool ok = ListenCmdFromSenderThread();
        {
            std::lock_guard lock(resultMutex_);
            result_ = ok;
        }
        announceSetupDone();  // a failed set-up is announced here, with its result already stored
    });
    std::unique_lock lock(setupMutex_);
    setupDone_.wait(lock, [this] { return setupFinished_; });
}

void CommandListener::stop() {
    stopRequested_.store(true);
    if (wakePipe_[1] != -1) {
        const char byte = 1;
        [[maybe_unused]] const ssize_t n = ::write(wakePipe_[1], &byte, 1);
    }
    if (thread_.joinable()) thread_.join();
}

std::optional<bool> CommandListener::result() const {
    std::lock_guard lock(resultMutex_);
    return result_;
}

void CommandListener::announceSetupDone() {
    {
        std::lock_guard lock(setupMutex_);
        setupFinished_ = true;
    }
    setupDone_.notify_all();
}

bool CommandListener::ListenCmdFromSenderThread() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd == -1) {
        Log::write(QStringLiteral("Create Socket failed.\n"));
        return false;
    }
    if (!setDescriptorFlags(fd, true)) {
        Log::write(QStringLiteral("Create Socket failed.\n"));
        closeFd(fd);
        return false;
    }
    const int reuse = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);

    // Loopback only: the sender runs on this machine and nobody else should fetch the receiver.
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_.load());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        Log::write(QStringLiteral("bind port failed.\n"));
        closeFd(fd);
        return false;
    }
    if (::listen(fd, kListenBacklog) != 0) {
        Log::logf("Command listener: listen failed (%s)\n", std::strerror(errno));
        closeFd(fd);
        return false;
    }
    socklen_t addressLength = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) == 0)
        port_.store(ntohs(address.sin_port));
    listenFd_.store(fd);
    announceSetupDone();

    // One wait covers new connections, a stop request, bytes from every peer and the earliest
    // deadline: no peer can hold up another.
    std::vector<pollfd> waits;
    bool running = !closing_.load() && !stopRequested_.load();
    while (running) {
        waits.clear();
        waits.push_back({fd, POLLIN, 0});
        waits.push_back({wakePipe_[0], POLLIN, 0});
        double earliest = -1.0;
        for (const Connection& connection : connections_) {
            waits.push_back({connection.fd, POLLIN, 0});
            if (!connection.answered && (earliest < 0 || connection.deadlineMs < earliest))
                earliest = connection.deadlineMs;
        }
        const int timeout =
            earliest < 0 ? -1 : static_cast<int>(std::ceil(std::max(0.0, earliest - steadyMs())));
        if (::poll(waits.data(), waits.size(), timeout) == -1) {
            if (errno == EINTR) continue;
            Log::logf("Command listener: poll failed (%s)\n", std::strerror(errno));
            break;
        }
        if (stopRequested_.load()) break;

        const double now = steadyMs();
        for (size_t i = 0; i < connections_.size(); ++i) {
            Connection& connection = connections_[i];
            bool keep = true;
            if (waits[i + 2].revents != 0) keep = readFrom(connection);
            if (keep && !connection.answered && now >= connection.deadlineMs) answer(connection);
            if (!keep) {
                closeFd(connection.fd);
                connection.fd = -1;
            }
        }
        std::erase_if(connections_, [](const Connection& c) { return c.fd == -1; });

        if ((waits[0].revents & POLLIN) != 0) acceptConnections(fd);
        running = !closing_.load() && !stopRequested_.load();
    }

    closeAllConnections();
    listenFd_.store(-1);
    closeFd(fd);
    return true;
}

void CommandListener::acceptConnections(int listenFd) {
    // Bounded per round, so a flood of connects cannot keep the loop from the connections it holds.
    for (int round = 0; round < kMaxOpenConnections; ++round) {
        sockaddr_in peer{};
        socklen_t peerLength = sizeof peer;
        const int fd = ::accept4(listenFd, reinterpret_cast<sockaddr*>(&peer), &peerLength,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd == -1) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno == EMFILE || errno == ENFILE) {
                Log::logf("Command listener: accept failed (%s)\n", std::strerror(errno));
                if (!connections_.empty()) {
                    closeFd(connections_.front().fd);
                    connections_.pop_front();
                } else {
                    // Nothing of ours to give back: wait a little (or for stop) instead of spinning.
                    pollfd wake{wakePipe_[0], POLLIN, 0};
                    ::poll(&wake, 1, 100);
                }
            } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
                Log::logf("Command listener: accept failed (%s)\n", std::strerror(errno));
            }
            return;
        }
        Connection connection;
        connection.fd = fd;
        connection.peerPort = ntohs(peer.sin_port);
        connection.deadlineMs = steadyMs() + kReceiveTimeoutMs;
        connection.received.reserve(kRequestReserve);
        // A sender sends its request with the connect: read it now rather than a round later.
        if (!readFrom(connection)) {
            closeFd(fd);
            continue;
        }
        connections_.push_back(std::move(connection));
        makeRoom();
    }
}

bool CommandListener::readFrom(Connection& connection) {
    if (connection.answered) {
        // Later bytes on an answered connection are not requests: drop them, a bounded amount per
        // round so a peer that keeps sending cannot hold the loop; release on end of stream.
        uint8_t discard[4096];
        for (int round = 0; round < 16; ++round) {
            const ssize_t n = ::recv(connection.fd, discard, sizeof discard, MSG_DONTWAIT);
            if (n == 0) return false;
            if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        }
        return true;
    }
    uint8_t chunk[kMaxReceive];
    const size_t room = kMaxReceive - connection.received.size();
    const ssize_t n = ::recv(connection.fd, chunk, room, MSG_DONTWAIT);
    if (n == -1) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    if (n == 0) {
        answer(connection);  // the peer said all it will: judge what came
        return false;
    }
    connection.received.insert(connection.received.end(), chunk, chunk + n);
    if (connection.received.size() >= kMaxReceive ||
        requestProgress(connection.received.data(), connection.received.size()) !=
            RequestProgress::Incomplete)
        answer(connection);
    return true;
}

void CommandListener::answer(Connection& connection) {
    connection.answered = true;
    // Judged on this connection's bytes alone, in a cleared buffer of the usual size.
    uint8_t request[kFrameBufferSize] = {};
    uint8_t reply[kFrameBufferSize] = {};
    std::memcpy(request, connection.received.data(), std::min(connection.received.size(), kMaxReceive));
    const bool complete = requestProgress(request, connection.received.size()) == RequestProgress::Complete;
    connection.received = {};

    Log::write(QStringLiteral("recv data from sender\n"));
    uint64_t length = 0;
    if (complete && framingIsValid(request)) {
        std::optional<uint32_t> owner;
        if (peers_.peerIsOurs(port_.load(), connection.peerPort, &owner)) {
            length = ParserCmd(request, reply, kFrameBufferSize);
        } else if (owner) {
            Log::logf(
                "Command listener: refused a request from 127.0.0.1:%u: its socket belongs to uid %u, "
                "not to this user (uid %u)\n",
                static_cast<unsigned>(connection.peerPort), static_cast<unsigned>(*owner),
                static_cast<unsigned>(peers_.self));
        } else {
            Log::logf("Command listener: refused a request from 127.0.0.1:%u: its owner could not be found\n",
                      static_cast<unsigned>(connection.peerPort));
        }
    }
    if (length == 0) {
        Log::write(QStringLiteral("Send nothing\n"));
        reply[0] = 0;
        length = 1;
    } else {
        Log::logf("Send data to sender, length:%ld\n", static_cast<long>(length));
    }
    ::send(connection.fd, reply, static_cast<size_t>(length), kReplyFlags);
}

void CommandListener::makeRoom() {
    while (connections_.size() > static_cast<size_t>(kMaxOpenConnections)) {
        // Answered connections go first (oldest first), then the longest-waiting request.
        auto victim = std::find_if(connections_.begin(), connections_.end(),
                                   [](const Connection& c) { return c.answered; });
        if (victim == connections_.end()) victim = connections_.begin();
        closeFd(victim->fd);
        connections_.erase(victim);
    }
}

void CommandListener::closeAllConnections() {
    for (const Connection& connection : connections_) closeFd(connection.fd);
    connections_.clear();
}

CommandListener::RequestProgress CommandListener::requestProgress(const uint8_t* received, size_t size) {
    // The same lenient marks as ParserCmd: either start mark alone will do.
    if (size >= 2 && received[0] != 0x02 && received[1] != 0x03) return RequestProgress::Refused;
    if (size >= 3 && received[2] != MainController::kCommandRequest) return RequestProgress::Refused;
    if (size < 5) return RequestProgress::Incomplete;
    const int length = static_cast<int8_t>(received[3]) + 256 * static_cast<int8_t>(received[4]);
    if (length < 0 || length + 2 >= kFrameBufferSize) return RequestProgress::Refused;
    // Checksum at offset L, end marks at L+1 and L+2.
    return size >= static_cast<size_t>(length) + 3 ? RequestProgress::Complete : RequestProgress::Incomplete;
}

bool CommandListener::framingIsValid(const uint8_t* request) const {
    // Either start mark alone is accepted.
    if (request[0] != 0x02 && request[1] != 0x03) return false;
    if (request[2] != MainController::kCommandRequest) return false;

    const int length = static_cast<int8_t>(request[3]) + 256 * static_cast<int8_t>(request[4]);
    // The receive buffer is the only bound: the checksum and both end marks must lie inside it.
    if (length < 0 || length + 2 >= kFrameBufferSize) return false;

    int sum = 0;
    if (static_cast<uint32_t>(length) >= 6) {
        for (int i = 5; i < length; ++i) sum += static_cast<int8_t>(request[i]);
    }
    if (static_cast<uint8_t>(sum & 0xFF) != request[length]) return false;
    // Either end mark alone is accepted.
    return request[length + 1] == 0x02 || request[length + 2] == 0x03;
}

uint64_t CommandListener::ParserCmd(const uint8_t* request, uint8_t* output, uint64_t outputLength) {
    if (!framingIsValid(request)) return 0;
    std::optional<ConnectionInfo> pending = slot_.take();
    if (!pending) return 0;
    return MainController::GeneralPacket(output, outputLength, *pending);
}

}  // namespace lumerix
