#pragma once
// Delivers sender frames from one serial thread, in the order given: a sender that does not answer
// holds a frame for up to 30 s, a wait the main thread must never take. The app builds one and
// hands deliver() to the shell as its SenderDelivery.
#include <QByteArray>
#include <cstdint>
#include <functional>

#include "dispatch/ThreadQueue.h"
#include "sender/ConnectionInfo.h"

namespace lumerix {

class DeliveryWorker {
public:
    explicit DeliveryWorker(uint16_t port = kSenderDataPort);
    // Frames still queued are dropped; one being sent finishes first.
    ~DeliveryWorker() = default;
    DeliveryWorker(const DeliveryWorker&) = delete;
    DeliveryWorker& operator=(const DeliveryWorker&) = delete;

    // Returns at once; SendDataToOndrel runs on the worker thread, which then tells done (when set)
    // whether the whole frame was sent.
    void deliver(QByteArray frame, std::function<void(bool delivered)> done = nullptr);

private:
    uint16_t port_;
    ThreadQueue queue_;
};

}  // namespace lumerix
