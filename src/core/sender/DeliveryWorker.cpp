#include "sender/DeliveryWorker.h"

#include "sender/MainController.h"

namespace lumerix {

DeliveryWorker::DeliveryWorker(uint16_t port) : port_(port), queue_("com.zemko.Lumerix.deliver") {}

void DeliveryWorker::deliver(QByteArray frame, std::function<void(bool delivered)> done) {
    queue_.async([frame = std::move(frame), done = std::move(done), port = port_] {
        const bool delivered = MainController::SendDataToOndrel(
            reinterpret_cast<const uint8_t*>(frame.constData()), static_cast<uint64_t>(frame.size()), port);
        if (done) done(delivered);
    });
}

}  // namespace lumerix
