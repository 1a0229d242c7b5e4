// The handler's GATT connection-info read: header decoding, accumulation, decryption and the
// connection callbacks, against the in-process GATT fake on virtual time.
#include <gtest/gtest.h>

#include <cstring>

#include "gatt/FakeGattPeripheral.h"
#include "gatt/GattPayload.h"
#include "log/Log.h"
#include "receiver/handler_fixture.h"

namespace lumerix {
namespace {

using test::ConnectionFields;
using test::FakeCharacteristic;
using test::FakeGattCentral;
using test::FakeGattPeripheral;

const QString kId = QStringLiteral("00000000-0000-0000-0000-A1B2C3D4E5F6");

QString field(const char* bytes, size_t width) {
    return QString::fromUtf8(bytes, qsizetype(strnlen(bytes, width)));
}

std::shared_ptr<FakeCharacteristic> valued(quint16 uuid, const QByteArray& value) {
    auto c = std::make_shared<FakeCharacteristic>(uuid, value);
    c->setValue(value);
    return c;
}

// A handler on virtual time with the GATT fake as its central. Without a log capture, so that
// death tests see the fatal line on stderr.
class GattHandlerBase : public ::testing::Test {
protected:
    FakeGattCentral* central = nullptr;  // set while `h` is made
    test::HandlerHarness h{[this](BleCentralDelegate* d, DispatchQueue* q) {
        auto c = std::make_unique<FakeGattCentral>(d, q);
        central = c.get();
        return c;
    }};
    std::shared_ptr<QVLumerixHandler>& handler = h.handler;
    VirtualTime& time = *h.time;

    std::vector<int> statuses() const { return h.delegate.values("status"); }
    std::vector<int> errors() const { return h.delegate.values("error"); }

    // A receiver with its item in the table.
    std::shared_ptr<FakeGattPeripheral> addReceiver(const QString& id = kId) {
        auto p = std::make_shared<FakeGattPeripheral>(id, QStringLiteral("Room 4"), handler->scanningQueue());
        peripherals.push_back(p);
        handler->discoverPeripheral(p, AdvertisementData{QStringLiteral("LX"), std::nullopt}, -60);
        return p;
    }

    // The receiver service beside another one, with a characteristic that is never read.
    void serveConnectionInfo(FakeGattPeripheral& p, uint8_t byte0, const ConnectionFields& f) {
        p.addService(0x1800)->add(0x2A00, "Room 4");
        test::serveConnectionInfo(p, byte0, f, test::encryptFields(f))->add(0x5870, "not read");
    }

    QVLumerixItemRef item(const QString& id = kId) { return handler->getItemByUUID(id); }
    // Lets a connection run its course (peripheral answers take 10 ms each).
    void settle() { time.advance(1000); }

    std::vector<std::shared_ptr<FakeGattPeripheral>> peripherals;
};

class GattHandlerTest : public GattHandlerBase {
protected:
    ScopedLogCapture log;
};

TEST_F(GattHandlerTest, HeaderDecoding) {
    struct Case {
        const char* hex;
        LumerixHeaderStruct expected;
    } cases[] = {
        {"4502f8f3f1f6f9", {5, 2, 7, 12, 14, 9, 6}},
        {"0502f8f3f1f6f9", {5, 2, 0xFFF8, 0xFFF3, 0xFFF1, 0xFFF6, 0xFFF9}},
        {"4103f0", {1, 3, 0x0F, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}},  // missing bytes read as 0
    };
    auto p = addReceiver();
    for (const Case& c : cases) {
        handler->decrytLumerixHeader(item(), QByteArray::fromHex(c.hex));
        const LumerixHeaderStruct h = item()->lumerixHeader();
        EXPECT_EQ(std::memcmp(&h, &c.expected, sizeof h), 0) << c.hex;
    }
}

TEST_F(GattHandlerTest, AccumulationCompletesOnTheLastIndexInArrivalOrder) {
    auto p = addReceiver();
    auto it = item();
    struct Step {
        quint16 uuid;
        const char* value;
        bool complete;
    } steps[] = {
        {0x5885, "zero", true},   // before any header the last index is 0
        {0x5885, "zero", true},   // a repeat returns the flag without appending
        {0x5886, "one-", false},  // the header below arrived in between
        {0x5884, "back", false},  // index -1 never matches
        {0x5887, "two-", true},
    };
    bool headerSet = false;
    for (const Step& s : steps) {
        if (s.uuid == 0x5886 && !headerSet) {
            handler->decrytLumerixHeader(it, QByteArray::fromHex("0102"));
            headerSet = true;
        }
        EXPECT_EQ(it->updateCharacteristic(*valued(s.uuid, s.value)), s.complete) << std::hex << s.uuid;
    }
    EXPECT_EQ(it->dataBuffer(), QByteArray("zeroone-backtwo-"));
    EXPECT_EQ(it->characteristicInfo().size(), 4);
}

TEST_F(GattHandlerTest, DataDecodingFillsTheRecordAndAnOversizedBufferStillResolves) {
    addReceiver();
    auto it = item();
    it->setDataBuffer(test::encryptFields(test::kRoom4));
    it->setLumerixHeader({1, 2, 8, 10, 12, 6, 4});
    handler->decrytLumerixData(it);
    LumerixStruct r = it->lumerix();
    EXPECT_EQ(field(r.WiFiSSID, 32), QStringLiteral("Lab-WiFi"));
    EXPECT_EQ(field(r.WiFiKey, 64), QStringLiteral("s3cret-key"));
    EXPECT_EQ(field(r.ReceiverIP, 20), QStringLiteral("192.168.1.20"));
    EXPECT_EQ(field(r.ReceiverName, 40), QStringLiteral("Room 4"));
    EXPECT_EQ(field(r.ReceiverLoginCode, 20), QStringLiteral("1234"));

    // Over 256 bytes: the decryption fails, the record is left empty, the item resolves all the same.
    it->setHasResolved(false);
    it->setDataBuffer(QByteArray(272, 'x'));
    it->setLumerixHeader({0, 0, 32, 64, 20, 40, 20});
    handler->decrytLumerixData(it);
    time.runUntilIdle();
    r = it->lumerix();
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(&r), sizeof r), QByteArray(176, '\0'));
    EXPECT_TRUE(it->hasResolved());
    EXPECT_EQ(statuses(), (std::vector<int>{LumerixItemResolved, LumerixItemResolved}));
    EXPECT_EQ(log.lines().filter(QStringLiteral("failed (buffer too small)")).size(), 1);
}

using GattHandlerDeathTest = GattHandlerBase;

TEST_F(GattHandlerDeathTest, ALengthBeyondTheRecordEndsTheProcess) {
    auto p = addReceiver();
    auto it = item();
    it->setDataBuffer(test::encryptFields(test::kRoom4));
    handler->decrytLumerixHeader(it, QByteArray::fromHex("0502f8f3f1f6f9"));
    EXPECT_DEATH(handler->decrytLumerixData(it),
                 "copy of 65528 bytes into WiFiSSID exceeds its 176-byte bound");
    // Within a field's spill room is fine; one byte past the record's end is not.
    it->setLumerixHeader({0, 0, 0, 0, 0, 0, 20});
    handler->decrytLumerixData(it);
    it->setLumerixHeader({0, 0, 0, 0, 0, 0, 21});
    EXPECT_DEATH(handler->decrytLumerixData(it),
                 "copy of 21 bytes into ReceiverLoginCode exceeds its 20-byte bound");
}

TEST_F(GattHandlerTest, ConnectionReadsDecryptsAndDisconnects) {
    auto p = addReceiver();
    p->rssi = -42;
    serveConnectionInfo(*p, 0x41, test::kRoom4);
    p->hideServicesForDiscoveries = 3;  // asked for again until the receiver service shows up
    auto it = item();
    handler->connectItem(it);
    settle();

    EXPECT_EQ(p->discoverServicesCalls, 4);
    EXPECT_EQ(statuses(),
              (std::vector<int>{LumerixItemConnected, LumerixItemResolved, LumerixItemDisconnected}));
    EXPECT_TRUE(errors().empty());
    EXPECT_TRUE(it->hasResolved());
    const LumerixStruct r = it->lumerix();
    EXPECT_EQ(field(r.WiFiSSID, 32), QStringLiteral("Lab-WiFi"));
    EXPECT_EQ(field(r.ReceiverLoginCode, 20), QStringLiteral("1234"));
    EXPECT_EQ(it->aveRssi(), -42);
    EXPECT_EQ(QStringList(p->reads.begin(), p->reads.end()).join(QLatin1Char(' ')),
              QStringLiteral("5880 5885 5886 5887"));
    EXPECT_EQ(handler->connectedPeer(), nullptr);
    // Scanning resumes with continueScanAfterConnect (false: stop and clear the table).
    EXPECT_EQ(central->stopScanCalls, 1);
    EXPECT_TRUE(handler->discoveredDeviceInfo().isEmpty());
}

TEST_F(GattHandlerTest, DisconnectionOutcomes) {
    const BleError failed{10, QStringLiteral("connection failed")};
    const BleError removed{7, QStringLiteral("peer removed pairing")};
    const struct {
        const char* what;
        BleError error;
        std::vector<int> statuses;  // after the connected status
        std::vector<int> errors;
        int connects;
    } cases[] = {
        {"error 10: reconnect, no status change", failed, {}, {}, 2},
        {"other error: disconnected, reported", removed, {0}, {7}, 1},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        // No receiver service: the link stays up, asking for services, until it drops.
        const QString id = QStringLiteral("00000000-0000-0000-0000-00000000000%1").arg(++n);
        auto p = addReceiver(id);
        central->connects.clear();
        h.delegate.all.clear();
        handler->connectItem(item(id));
        settle();
        p->answersConnect = false;  // the retry is asked for, not answered
        central->dropLink(p, c.error);
        settle();
        std::vector<int> expected{LumerixItemConnected};
        expected.insert(expected.end(), c.statuses.begin(), c.statuses.end());
        EXPECT_EQ(statuses(), expected);
        EXPECT_EQ(errors(), c.errors);
        EXPECT_EQ(static_cast<int>(central->connects.size()), c.connects);
        handler->setConnectedPeer(nullptr);
    }
    EXPECT_TRUE(log.contains(QStringLiteral(
        "-[QVLumerixHandler centralManager:didDisconnectPeripheral:error:] retry connection")));
}

}  // namespace
}  // namespace lumerix
