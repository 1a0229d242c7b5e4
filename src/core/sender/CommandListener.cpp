#include "sender/CommandListener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "log/Log.h"
#include "sender/MainController.h"

namespace lumerix {
namespace {

constexpr size_t kMaxReceive = kFrameBufferSize - 1;
// Never stall on one peer. A reply to a peer that has gone raises SIGPIPE, which the program
// ignores (the app sets that up), so the send just fails.
constexpr int kReplyFlags = MSG_DONTWAIT;

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

void PendingConnectionSlot::park(ConnectionInfo info) {
    std::lock_guard lock(mutex_);
    pending_ = std::move(info);
}

std::optional<ConnectionInfo> PendingConnectionSlot::take() {
    std::lock_guard lock(mutex_);
    std::optional<ConnectionInfo> taken;
    taken.swap(pending_);
    return taken;
}

bool PendingConnectionSlot::isPending() const {
    std::lock_guard lock(mutex_);
    return pending_.has_value();
}

CommandListener::CommandListener(PendingConnectionSlot& slot, const std::atomic<bool>& closing, uint16_t port)
    : slot_(slot), closing_(closing), port_(port) {
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
    uint8_t receiveBuffer[kFrameBufferSize] = {};
    uint8_t replyBuffer[kFrameBufferSize] = {};

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
    if (::listen(fd, 5) != 0) {
        Log::logf("Command listener: listen failed (%s)\n", std::strerror(errno));
        closeFd(fd);
        return false;
    }
    socklen_t addressLength = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) == 0)
        port_.store(ntohs(address.sin_port));
    std::memset(receiveBuffer, 0, sizeof receiveBuffer);
    listenFd_.store(fd);
    announceSetupDone();

    std::vector<pollfd> waits;
    bool running = !closing_.load() && !stopRequested_.load();
    while (running) {
        // One wait covers new connections, a stop request, and peers closing connections we hold.
        waits.clear();
        waits.push_back({fd, POLLIN, 0});
        waits.push_back({wakePipe_[0], POLLIN, 0});
        for (const int connection : openConnections_) waits.push_back({connection, POLLIN, 0});
        if (::poll(waits.data(), waits.size(), -1) == -1) {
            if (errno == EINTR) continue;
            Log::logf("Command listener: poll failed (%s)\n", std::strerror(errno));
            break;
        }
        if (stopRequested_.load()) break;

        std::deque<int> readable;
        for (size_t i = 2; i < waits.size(); ++i) {
            if (waits[i].revents != 0) readable.push_back(waits[i].fd);
        }
        releaseClosedConnections(readable);

        if ((waits[0].revents & POLLIN) == 0) continue;
        sockaddr_in peer{};
        socklen_t peerLength = sizeof peer;  // 16
        const int connection = ::accept(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength);
        if (connection == -1) {
            if (errno == EMFILE || errno == ENFILE) {
                Log::logf("Command listener: accept failed (%s)\n", std::strerror(errno));
                if (!openConnections_.empty()) {
                    closeFd(openConnections_.front());
                    openConnections_.pop_front();
                } else {
                    // Nothing of ours to give back: wait a little (or for stop) instead of spinning.
                    pollfd wake{wakePipe_[0], POLLIN, 0};
                    ::poll(&wake, 1, 100);
                }
            } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED) {
                Log::logf("Command listener: accept failed (%s)\n", std::strerror(errno));
            }
            continue;
        }
        // Every receive and send below says MSG_DONTWAIT, so the connection's own blocking mode
        // (inherited from the listening socket on some systems, not on others) does not matter.
        ::fcntl(connection, F_SETFD, FD_CLOEXEC);
        serveConnection(connection, receiveBuffer, replyBuffer);
        running = !closing_.load() && !stopRequested_.load();
    }

    closeAllConnections();
    listenFd_.store(-1);
    closeFd(fd);
    return true;
}

void CommandListener::serveConnection(int connection, uint8_t* receiveBuffer, uint8_t* replyBuffer) {
    // A receive that waits too long counts as empty; the buffer keeps what an earlier request left.
    pollfd waits[2] = {{connection, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
    int ready;
    do {
        ready = ::poll(waits, 2, kReceiveTimeoutMs);
    } while (ready == -1 && errno == EINTR);
    if (stopRequested_.load()) {
        closeFd(connection);
        return;
    }
    ssize_t received = -1;
    if (ready > 0 && waits[0].revents != 0)
        received = ::recv(connection, receiveBuffer, kMaxReceive, MSG_DONTWAIT);

    Log::write(QStringLiteral("recv data from sender\n"));
    uint64_t length = ParserCmd(receiveBuffer, replyBuffer, kFrameBufferSize);
    if (length == 0) {
        Log::write(QStringLiteral("Send nothing\n"));
        replyBuffer[0] = 0;
        length = 1;
    } else {
        Log::logf("Send data to sender, length:%ld\n", static_cast<long>(length));
    }
    ::send(connection, replyBuffer, static_cast<size_t>(length), kReplyFlags);

    if (received == 0) {
        closeFd(connection);  // the peer has already closed its side
        return;
    }
    keepConnection(connection);
}

void CommandListener::keepConnection(int connection) {
    openConnections_.push_back(connection);
    while (openConnections_.size() > static_cast<size_t>(kMaxOpenConnections)) {
        closeFd(openConnections_.front());
        openConnections_.pop_front();
    }
}

void CommandListener::releaseClosedConnections(const std::deque<int>& readable) {
    for (const int connection : readable) {
        // Later bytes on an answered connection are not requests: drop them; release on end of stream.
        uint8_t discard[256];
        ssize_t n;
        do {
            n = ::recv(connection, discard, sizeof discard, MSG_DONTWAIT);
        } while (n > 0);
        if (n == -1 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) continue;
        closeFd(connection);
        std::erase(openConnections_, connection);
    }
}

void CommandListener::closeAllConnections() {
    for (const int connection : openConnections_) closeFd(connection);
    openConnections_.clear();
}

uint64_t CommandListener::ParserCmd(const uint8_t* request, uint8_t* output, uint64_t outputLength) {
    // Either start mark alone is accepted.
    if (request[0] != 0x02 && request[1] != 0x03) return 0;
    if (request[2] != MainController::kCommandRequest) return 0;

    const int length = static_cast<int8_t>(request[3]) + 256 * static_cast<int8_t>(request[4]);
    // The receive buffer is the only bound: the checksum and both end marks must lie inside it.
    if (length < 0 || length + 2 >= kFrameBufferSize) return 0;

    int sum = 0;
    if (static_cast<uint32_t>(length) >= 6) {
        for (int i = 5; i < length; ++i) sum += static_cast<int8_t>(request[i]);
    }
    if (static_cast<uint8_t>(sum & 0xFF) != request[length]) return 0;
    // Either end mark alone is accepted.
    if (request[length + 1] != 0x02 && request[length + 2] != 0x03) return 0;

    std::optional<ConnectionInfo> pending = slot_.take();
    if (!pending) return 0;
    return MainController::GeneralPacket(output, outputLength, *pending);
}

}  // namespace lumerix
