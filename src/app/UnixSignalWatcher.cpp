#include "app/UnixSignalWatcher.h"

#include <fcntl.h>
#include <unistd.h>

#include <QSocketNotifier>
#include <cerrno>
#include <csignal>

#include "log/Log.h"

namespace lumerix {

namespace {

int gPipe[2] = {-1, -1};
constexpr int kSignals[] = {SIGTERM, SIGINT};

extern "C" void onUnixSignal(int signal) {
    const int saved = errno;
    const auto byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] ssize_t n = ::write(gPipe[1], &byte, 1);
    errno = saved;
}

}  // namespace

UnixSignalWatcher::UnixSignalWatcher(std::function<void(int)> onSignal) : onSignal_(std::move(onSignal)) {
    if (::pipe2(gPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        Log::logf("Cannot watch for termination signals: pipe failed (errno %d)", errno);
        return;
    }
    notifier_ = std::make_unique<QSocketNotifier>(gPipe[0], QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(), [this] { drain(); });
    struct sigaction action {};
    action.sa_handler = onUnixSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : kSignals) sigaction(signal, &action, nullptr);
}

UnixSignalWatcher::~UnixSignalWatcher() {
    if (!notifier_) return;
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int signal : kSignals) sigaction(signal, &action, nullptr);
    notifier_.reset();
    ::close(gPipe[0]);
    ::close(gPipe[1]);
    gPipe[0] = gPipe[1] = -1;
}

void UnixSignalWatcher::drain() {
    unsigned char byte = 0;
    while (::read(gPipe[0], &byte, 1) == 1) {
        if (onSignal_) onSignal_(byte);
    }
}

}  // namespace lumerix
