#pragma once
// The bridge between the objects BluezCentral hands out (the central, its peripherals) and the
// engine on the intake thread. Anything may post to the engine from any thread; a post wakes the
// intake thread through an eventfd. Delegate callbacks go the other way, to the central's delegate
// queue, a batch at a time. Once the central is gone both directions are dropped, so a peripheral
// kept by an item stays harmless.
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace lumerix {

class DispatchQueue;
class BluezEngine;

class BluezLink final : public std::enable_shared_from_this<BluezLink> {
public:
    explicit BluezLink(DispatchQueue* queue);
    ~BluezLink();
    BluezLink(const BluezLink&) = delete;
    BluezLink& operator=(const BluezLink&) = delete;

    // Runs fn with the engine on the intake thread, if there still is one.
    void post(std::function<void(BluezEngine&)> fn);
    // Runs the callbacks, in order, as one task on the delegate queue unless the central is closing.
    void deliver(std::vector<std::function<void()>> callbacks);
    // Stops all further posts and deliveries; called by the central's destructor.
    void detach();

    // Intake-thread side: the fd that becomes readable when commands are waiting, and the commands.
    int wakeFd() const { return wakeFd_; }
    std::vector<std::function<void(BluezEngine&)>> takeCommands();
    // Wakes the intake thread without a command (shutdown).
    void wake();

    std::atomic<int> state{0};
    std::atomic<bool> closing{false};

private:
    std::mutex mutex_;
    DispatchQueue* queue_;
    bool attached_ = true;
    int wakeFd_ = -1;
    std::vector<std::function<void(BluezEngine&)>> commands_;
};

}  // namespace lumerix
