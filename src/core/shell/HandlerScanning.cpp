// The production LumerixScanning: a plainly constructed QVLumerixHandler (never the shared one).
#include "shell/ShellPorts.h"

namespace lumerix {

namespace {

class HandlerScanning final : public LumerixScanning {
public:
    explicit HandlerScanning(std::shared_ptr<QVLumerixHandler> handler) : handler_(std::move(handler)) {}
    // The handler's threads are joined here, on the owner's thread, so the last reference can
    // never be dropped by one of them once the shell and its main queue are gone.
    ~HandlerScanning() override { handler_->shutDown(); }

    bool scanForLumerixService(bool start) override { return handler_->scanForLumerixService(start); }
    void setDelegate(LumerixHandler_Delegate* delegate) override { handler_->setDelegate(delegate); }
    LumerixHandler_Delegate* delegate() const override { return handler_->delegate(); }
    std::shared_ptr<QVLumerixHandler> handler() const override { return handler_; }
    std::optional<int> centralState() const override {
        if (BleCentral* central = handler_->cbCM()) return central->state();
        return std::nullopt;
    }
    void forgetItem(const QVLumerixItemRef& item) override { handler_->forgetItem(item); }

private:
    std::shared_ptr<QVLumerixHandler> handler_;
};

}  // namespace

LumerixScanningFactory makeHandlerFactory(HandlerEnvironment env) {
    return [env = std::move(env)]() -> std::unique_ptr<LumerixScanning> {
        return std::make_unique<HandlerScanning>(QVLumerixHandler::create(env));
    };
}

}  // namespace lumerix
