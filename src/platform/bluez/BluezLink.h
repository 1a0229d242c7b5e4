#pragma once
// The bridge between the objects BluezCentral hands out (the central, its peripherals) and the
// engine that lives on the scan queue's thread. Anything may post to the engine from any thread;
// once the central is gone the posts are dropped, so a peripheral kept by an item stays harmless.
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace lumerix {

class DispatchQueue;
class BluezEngine;

class BluezLink final : public std::enable_shared_from_this<BluezLink> {
public:
    explicit BluezLink(DispatchQueue* queue) : queue_(queue) {}

    // Runs fn with the engine on the scan thread, if there still is one.
    void post(std::function<void(BluezEngine&)> fn);
    // Runs fn on the scan thread unless the central is closing (delegate callbacks).
    void deliver(std::function<void()> fn);
    // Runs fn on the scan thread (engine creation).
    void run(std::function<void()> fn);
    // Stops all further posts; called by the central's destructor.
    void detach();

    std::atomic<int> state{0};
    std::atomic<bool> closing{false};
    // Touched on the scan thread only.
    std::shared_ptr<BluezEngine> engine;

private:
    std::mutex mutex_;
    DispatchQueue* queue_;
};

}  // namespace lumerix
