// The production LumerixScanning: a plainly constructed QVLumerixHandler (never the shared one).
#include "shell/ShellPorts.h"

namespace lumerix {

namespace {

class HandlerScanning final : public LumerixScanning {
public:
    explicit HandlerScanning(std::shared_ptr<QVLumerixHandler> handler) : handler_(std::move(handler)) {}
    ~HandlerScanning() override { handler_->setDelegate(nullptr); }

    bool scanForLumerixService(bool start) override { return handler_->scanForLumerixService(start); }
    void setDelegate(LumerixHandler_Delegate* delegate) override { handler_->setDelegate(delegate); }
    LumerixHandler_Delegate* delegate() const override { return handler_->delegate(); }
    std::shared_ptr<QVLumerixHandler> handler() const override { return handler_; }
    std::optional<int> centralState() const override {
        if (BleCentral* central = handler_->cbCM()) return central->state();
        return std::nullopt;
    }

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
