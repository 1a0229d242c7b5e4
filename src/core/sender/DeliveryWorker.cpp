#include "sender/DeliveryWorker.h"

#include "sender/MainController.h"

namespace lumerix {

DeliveryWorker::DeliveryWorker(uint16_t port, PeerCheck peers)
    : port_(port), peers_(std::move(peers)), queue_("com.zemko.Lumerix.deliver") {}

void DeliveryWorker::deliver(QByteArray frame, std::function<void(DeliveryOutcome)> done) {
    // peers_ is only read after construction, so the worker thread may use it without a lock.
    queue_.async([this, frame = std::move(frame), done = std::move(done)] {
        const DeliveryOutcome outcome =
            MainController::SendDataToOndrel(reinterpret_cast<const uint8_t*>(frame.constData()),
                                             static_cast<uint64_t>(frame.size()), port_, peers_);
        if (done) done(outcome);
    });
}

}  // namespace lumerix
