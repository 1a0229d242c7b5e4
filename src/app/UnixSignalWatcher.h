#pragma once
// Turns SIGTERM and SIGINT into a call on the main thread (self-pipe + QSocketNotifier), so that
// `kill` or Ctrl-C ends the program through its normal termination and nothing is lost.
#include <functional>
#include <memory>

class QSocketNotifier;

namespace lumerix {

class UnixSignalWatcher {
public:
    // One watcher per process; onSignal runs on the thread that created it, once per signal.
    explicit UnixSignalWatcher(std::function<void(int signal)> onSignal);
    ~UnixSignalWatcher();
    UnixSignalWatcher(const UnixSignalWatcher&) = delete;
    UnixSignalWatcher& operator=(const UnixSignalWatcher&) = delete;

private:
    void drain();

    std::function<void(int)> onSignal_;
    std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace lumerix
