#pragma once
// An sd-bus connection on one end of a socket pair whose other end never answers: enough to build
// messages and to send calls that nobody replies to.
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace lumerix::test {

class OfflineBus {
public:
    OfflineBus() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) < 0) return;
        sd_bus_new(&bus_);
        sd_bus_set_fd(bus_, fds_[0], fds_[0]);
        sd_bus_start(bus_);
    }
    ~OfflineBus() {
        sd_bus_close(bus_);
        sd_bus_unref(bus_);  // closes fds_[0]; nothing is flushed to a peer that never reads
        if (fds_[1] >= 0) close(fds_[1]);
    }
    OfflineBus(const OfflineBus&) = delete;
    OfflineBus& operator=(const OfflineBus&) = delete;

    sd_bus* get() const { return bus_; }

private:
    int fds_[2] = {-1, -1};
    sd_bus* bus_ = nullptr;
};

}  // namespace lumerix::test
