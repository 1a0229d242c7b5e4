// Arbitrary manufacturer data, one record after another, through the advertisement decoder of one
// item; every fourth record also goes the whole way from the central through the handler.
// Input: a sequence of [length byte][record]; a length byte of 255 takes a second length byte
// that is added to it, so records longer than any legacy advertisement come up too.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ble/SimulatedCentral.h"
#include "dispatch/ManualQueue.h"
#include "log/Log.h"
#include "receiver/QVLumerixHandler.h"

namespace {

using namespace lumerix;

class NullSink final : public LogSink {
public:
    void write(const QString&) override {}
};

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        Log::setSink(std::make_shared<NullSink>());
        return true;
    }();
    (void)quiet;

    auto time = std::make_shared<VirtualTime>();
    ManualQueue main(*time, "main");
    HandlerEnvironment env;
    env.clock = time;
    env.mainQueue = &main;
    env.makeQueue = [&](const std::string& label) { return std::make_unique<ManualQueue>(*time, label); };
    env.makeCentral = simulatedCentralFactory({});
    auto handler = QVLumerixHandler::create(std::move(env));
    time->runUntilIdle();
    auto* central = dynamic_cast<SimulatedCentral*>(handler->cbCM());
    const QString id = SimulatedCentral::identifierForIndex(0);
    auto item = QVLumerixItem::initWithPeripheral(central->peripheral(id), time);

    size_t pos = 0;
    int index = 0;
    while (pos < size) {
        size_t length = data[pos++];
        if (length == 255 && pos < size) length += data[pos++];
        if (length > size - pos) length = size - pos;
        const QByteArray record(reinterpret_cast<const char*>(data + pos), static_cast<qsizetype>(length));
        pos += length;
        if (++index % 4 == 0) {
            central->injectAdvertisement(id, AdvertisementData{QStringLiteral("LX"), record}, -50);
        } else {
            handler->decrytLumerixItem(item, record);
        }
        time->runUntilIdle();
    }

    for (const auto& it : {item, handler->getItemByUUID(id)}) {
        if (!it) continue;
        const LumerixStructV2 v = it->lumerixV2();
        check(strnlen(v.ipAddress, sizeof v.ipAddress) <= 15);
        check(strnlen(v.loginCode, sizeof v.loginCode) <= 6);
        check(v.receiverName[47] == '\0');
        check(v.receivedSegments <= 3);
        check(it->receiverName().value_or(QString()).size() <= 50);
    }
    handler.reset();
    return 0;
}
