#pragma once
// Delivers sender frames from one serial thread, in the order given: a sender that does not answer
// holds a frame for up to 30 s, a wait the main thread must never take. The app builds one and
// hands deliver() to the shell as its SenderDelivery.
#include <QByteArray>
#include <cstdint>
#include <functional>

#include "dispatch/ThreadQueue.h"
#include "sender/ConnectionInfo.h"
#include "sender/MainController.h"
#include "sender/PeerCheck.h"

namespace lumerix {

class DeliveryWorker {
public:
    // peers: whose listener may take a frame (see SendDataToOndrel); empty checks nothing.
    explicit DeliveryWorker(uint16_t port = kSenderDataPort, PeerCheck peers = {});
    // Frames still queued are dropped; one being sent finishes first.
    ~DeliveryWorker() = default;
    DeliveryWorker(const DeliveryWorker&) = delete;
    DeliveryWorker& operator=(const DeliveryWorker&) = delete;

    // Returns at once; SendDataToOndrel runs on the worker thread, which then tells done (when set)
    // what became of the frame.
    void deliver(QByteArray frame, std::function<void(DeliveryOutcome)> done = nullptr);

private:
    uint16_t port_;
    PeerCheck peers_;
    ThreadQueue queue_;
};

}  // namespace lumerix
