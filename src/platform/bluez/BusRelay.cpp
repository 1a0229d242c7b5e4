#include "platform/bluez/BusRelay.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace lumerix {
namespace {

constexpr size_t kReadChunk = size_t(64) * 1024;
constexpr size_t kReadAhead = size_t(256) * 1024;
constexpr const char* kDefaultSystemBus = "unix:path=/run/dbus/system_bus_socket";

QString systemError(int e) { return QString::fromLocal8Bit(std::strerror(e)); }

std::string unescape(std::string_view v) {
    std::string out;
    for (size_t i = 0; i < v.size(); ++i) {
        if (v[i] == '%' && i + 2 < v.size()) {
            const std::string hex(v.substr(i + 1, 2));
            char* end = nullptr;
            const long c = std::strtol(hex.c_str(), &end, 16);
            if (end == hex.c_str() + 2) {
                out.push_back(static_cast<char>(c));
                i += 2;
                continue;
            }
        }
        out.push_back(v[i]);
    }
    return out;
}

// The first Unix socket among the address's entries ("unix:path=..." or "unix:abstract=...").
bool unixAddress(std::string_view address, sockaddr_un* sa, socklen_t* length) {
    while (!address.empty()) {
        const size_t semi = address.find(';');
        std::string_view entry = address.substr(0, semi);
        address = semi == std::string_view::npos ? std::string_view() : address.substr(semi + 1);
        if (entry.substr(0, 5) != "unix:") continue;
        entry.remove_prefix(5);
        while (!entry.empty()) {
            const size_t comma = entry.find(',');
            const std::string_view pair = entry.substr(0, comma);
            entry = comma == std::string_view::npos ? std::string_view() : entry.substr(comma + 1);
            const size_t eq = pair.find('=');
            if (eq == std::string_view::npos) continue;
            const std::string_view key = pair.substr(0, eq);
            const std::string value = unescape(pair.substr(eq + 1));
            const bool abstract = key == "abstract";
            if ((key != "path" && !abstract) || value.empty() || value.size() >= sizeof(sa->sun_path) - 1)
                continue;
            *sa = {};
            sa->sun_family = AF_UNIX;
            std::memcpy(sa->sun_path + (abstract ? 1 : 0), value.data(), value.size());
            // A path ends with its NUL; an abstract name starts with one and has no end mark.
            *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + value.size() + 1);
            return true;
        }
    }
    return false;
}

}  // namespace

std::unique_ptr<BusRelay> BusRelay::connectSystemBus(sdbus::BusPtr* bus, QString* error) {
    error->clear();
    const char* env = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    sockaddr_un sa{};
    socklen_t length = 0;
    if (!unixAddress(env && *env ? env : kDefaultSystemBus, &sa, &length)) return nullptr;

    const int s = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        *error = systemError(errno);
        return nullptr;
    }
    if (::connect(s, reinterpret_cast<const sockaddr*>(&sa), length) < 0) {
        *error = systemError(errno);
        ::close(s);
        return nullptr;
    }
    int pair[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) < 0) {
        *error = systemError(errno);
        ::close(s);
        return nullptr;
    }
    ::fcntl(s, F_SETFL, ::fcntl(s, F_GETFL) | O_NONBLOCK);
    std::unique_ptr<BusRelay> relay(new BusRelay(s, pair[0]));
    // sd-bus writes through its own descriptor of the socket: one descriptor cannot sit in the
    // event loop twice (the relay watches it for reading, sd-bus for writing).
    const int out = ::fcntl(s, F_DUPFD_CLOEXEC, 3);
    sd_bus* raw = nullptr;
    int r = out < 0 ? -errno : sd_bus_new(&raw);
    sdbus::BusPtr b(raw);
    if (r >= 0) r = sd_bus_set_fd(raw, pair[1], out);
    if (r >= 0) {
        // The relay passes bytes, not descriptors.
        r = sd_bus_negotiate_fds(raw, 0);
        if (r >= 0) r = sd_bus_set_bus_client(raw, 1);
        if (r >= 0) r = sd_bus_set_description(raw, "system");
        if (r >= 0) r = sd_bus_start(raw);
    } else {
        ::close(pair[1]);
        if (out >= 0) ::close(out);
    }
    if (r < 0) {
        *error = systemError(-r);
        return nullptr;
    }
    *bus = std::move(b);
    return relay;
}

BusRelay::~BusRelay() {
    if (feed_ >= 0) ::close(feed_);
    if (socket_ >= 0) ::close(socket_);
}

int BusRelay::fill() {
    // What was handled goes; what is left is the start of a message at most.
    if (start_ > 0) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
        start_ = 0;
    }
    int total = 0;
    for (;;) {
        // Enough for a pass is read ahead, unless the first message is longer still; the rest waits
        // in the socket (and, beyond it, in the bus daemon's queue).
        size_t length = 0;
        if (buffer_.size() >= kReadAhead &&
            (!authenticated_ || passthrough_ ||
             buswire::frame(buffer_.data(), buffer_.size(), &length) != buswire::Frame::kIncomplete))
            return total;
        const size_t used = buffer_.size();
        buffer_.resize(used + kReadChunk);
        const ssize_t n = ::recv(socket_, buffer_.data() + used, kReadChunk, MSG_DONTWAIT);
        const int e = errno;
        buffer_.resize(used + (n > 0 ? size_t(n) : 0));
        if (n > 0) {
            total += static_cast<int>(n);
            if (size_t(n) < kReadChunk) return total;  // the socket is empty now
            continue;
        }
        if (n == 0) return total > 0 ? total : -ECONNRESET;
        if (e == EINTR) continue;
        if (e == EAGAIN || e == EWOULDBLOCK) return total;
        return -e;
    }
}

int BusRelay::forward(sd_bus* bus, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::send(feed_, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            data += n;
            size -= size_t(n);
        } else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            return -errno;
        }
        // sd-bus reads what was passed before more goes in (the socket pair holds a few hundred
        // kilobytes), and handles each complete message it finds.
        int r;
        while ((r = sd_bus_process(bus, nullptr)) > 0) {
        }
        if (r < 0) return r;
    }
    return 0;
}

int BusRelay::pump(sd_bus* bus, int maxMessages, const AdvertisementSink& sink) {
    const int got = fill();
    if (got < 0 && start_ == buffer_.size()) return got;
    int handled = 0;
    while (handled < maxMessages && start_ < buffer_.size()) {
        const uint8_t* data = buffer_.data() + start_;
        const size_t available = buffer_.size() - start_;
        size_t take = available;
        if (!authenticated_) {
            // The server's side of the handshake is lines; the messages start after its "OK".
            const std::string_view text(reinterpret_cast<const char*>(data), available);
            const size_t eol = text.find("\r\n");
            if (eol == std::string_view::npos) break;
            take = eol + 2;
            if (text.substr(0, 3) == "OK ") authenticated_ = true;
        } else if (!passthrough_) {
            size_t length = 0;
            const buswire::Frame f = buswire::frame(data, available, &length);
            if (f == buswire::Frame::kIncomplete) break;
            if (f == buswire::Frame::kInvalid) {
                passthrough_ = true;  // sd-bus makes its own sense of it, and drops the connection
            } else {
                take = length;
                ++handled;
                if (auto plain = buswire::plainAdvertisement(data, length)) {
                    sink(*plain);
                    start_ += take;
                    continue;
                }
            }
        }
        const int r = forward(bus, data, take);
        if (r < 0) return r;
        start_ += take;
    }
    if (got < 0) return got;  // what came before the end was still handled
    return handled;
}

}  // namespace lumerix
