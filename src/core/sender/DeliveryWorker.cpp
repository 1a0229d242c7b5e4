#include "sender/DeliveryWorker.h"

#include "sender/MainController.h"

namespace lumerix {

DeliveryWorker::DeliveryWorker(uint16_t port) : port_(port), queue_("com.zemko.Lumerix.deliver") {}

void DeliveryWorker::deliver(QByteArray frame) {
    queue_.async([frame = std::move(frame), port = port_] {
        MainController::SendDataToOndrel(reinterpret_cast<const uint8_t*>(frame.constData()),
                                         static_cast<uint64_t>(frame.size()), port);
    });
}

}  // namespace lumerix
