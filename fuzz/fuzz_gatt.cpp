// Arbitrary GATT characteristic sequences through header decoding, accumulation and data
// decryption. Input: records of [UUID byte 1][value length][value]. Header lengths are folded into
// the record's bounds, because a length past them ends the process by design.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "ble/StaticPeripheral.h"
#include "dispatch/ManualQueue.h"
#include "log/Log.h"
#include "receiver/QVLumerixHandler.h"

using namespace lumerix;

namespace {

class QuietSink final : public LogSink {
public:
    void write(const QString&) override {}
};

class Characteristic final : public BleCharacteristic {
public:
    Characteristic(uint8_t second, QByteArray value)
        : uuid_(BleUuid::fromUInt16(static_cast<quint16>(0x5800 | second))), value_(std::move(value)) {}
    BleUuid uuid() const override { return uuid_; }
    QByteArray value() const override { return value_; }

private:
    BleUuid uuid_;
    QByteArray value_;
};

struct World {
    World() {
        Log::setSink(std::make_shared<QuietSink>());
        HandlerEnvironment env;
        env.clock = std::shared_ptr<Clock>(std::shared_ptr<Clock>(), &time);
        env.mainQueue = &main;
        env.makeQueue = [this](const std::string& label) {
            return std::make_unique<ManualQueue>(time, label);
        };
        handler = QVLumerixHandler::create(env);
    }
    VirtualTime time;
    ManualQueue main{time, "main"};
    std::shared_ptr<QVLumerixHandler> handler;
};

void foldLengths(QVLumerixItem& item) {
    LumerixHeaderStruct h = item.lumerixHeader();
    uint16_t* lengths[] = {&h.LengthOfSSID, &h.LengthOfWiFiPW, &h.LengthOfIP, &h.LengthOfReceiverName,
                           &h.LengthOfLogincode};
    const uint16_t bounds[] = {176, 144, 80, 60, 20};
    for (int i = 0; i < 5; ++i) *lengths[i] = static_cast<uint16_t>(*lengths[i] % (bounds[i] + 1));
    item.setLumerixHeader(h);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static World world;
    auto item = QVLumerixItem::initWithPeripheral(
        std::make_shared<StaticPeripheral>(QStringLiteral("00000000-0000-0000-0000-00000000F022"),
                                           QStringLiteral("fuzz")),
        std::shared_ptr<Clock>(std::shared_ptr<Clock>(), &world.time));
    size_t i = 0;
    while (i + 2 <= size) {
        const uint8_t second = data[i];
        const size_t length = std::min<size_t>(data[i + 1], size - i - 2);
        const QByteArray value(reinterpret_cast<const char*>(data + i + 2), static_cast<qsizetype>(length));
        i += 2 + length;
        if (second == 0x80) {
            world.handler->decrytLumerixHeader(item, value);
            foldLengths(*item);
        } else if (!value.isEmpty() && item->updateCharacteristic(Characteristic(second, value))) {
            world.handler->decrytLumerixData(item);
        }
    }
    world.time.runUntilIdle();
    return 0;
}
