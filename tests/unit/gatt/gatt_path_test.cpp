// The handler's GATT connection-info read: header decoding, accumulation, decryption and the
// connection callbacks, against the in-process GATT fake on virtual time.
#include <gtest/gtest.h>

#include <cstring>

#include "dispatch/ManualQueue.h"
#include "gatt/FakeGattPeripheral.h"
#include "gatt/GattPayload.h"
#include "log/Log.h"
#include "receiver/QVLumerixHandler.h"

namespace lumerix {
namespace {

using test::ConnectionFields;
using test::FakeCharacteristic;
using test::FakeGattCentral;
using test::FakeGattPeripheral;

const QString kId = QStringLiteral("00000000-0000-0000-0000-A1B2C3D4E5F6");
const ConnectionFields kRoom4{"Lab-WiFi", "s3cret-key", "192.168.1.20", "Room 4", "1234"};
constexpr const char* kDidDisconnect = "-[QVLumerixHandler centralManager:didDisconnectPeripheral:error:]";

class RecordingDelegate final : public LumerixHandler_Delegate {
public:
    void lumerixItem(const QVLumerixItemRef&, int status) override { statuses.push_back(status); }
    void lumerixOnError(int code) override { errors.push_back(code); }
    std::vector<int> statuses;
    std::vector<int> errors;
};

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
    void SetUp() override {
        HandlerEnvironment env;
        env.clock = std::shared_ptr<Clock>(std::shared_ptr<Clock>(), &time);
        env.mainQueue = &main;
        env.makeQueue = [this](const std::string& label) {
            return std::make_unique<ManualQueue>(time, label);
        };
        env.makeCentral = [this](BleCentralDelegate* d, DispatchQueue* q) {
            auto c = std::make_unique<FakeGattCentral>(d, q);
            central = c.get();
            return c;
        };
        handler = QVLumerixHandler::create(env);
        handler->setDelegate(&delegate);
        time.runUntilIdle();
        ASSERT_EQ(handler->mCurrentState(), BleStatePoweredOn);
    }
    void TearDown() override { handler->setDelegate(nullptr); }

    // A receiver with its item in the table.
    std::shared_ptr<FakeGattPeripheral> addReceiver(const QString& id = kId) {
        auto p = std::make_shared<FakeGattPeripheral>(id, QStringLiteral("Room 4"), handler->scanningQueue());
        peripherals.push_back(p);
        handler->discoverPeripheral(p, AdvertisementData{QStringLiteral("LX"), std::nullopt}, -60);
        return p;
    }

    // The receiver service: header (last index = parts - 1), data values of 20 bytes.
    void serveConnectionInfo(FakeGattPeripheral& p, uint8_t byte0, const ConnectionFields& f) {
        p.addService(0x1800)->add(0x2A00, "Room 4");
        auto service = p.addService(0x5885);
        const auto parts = test::chunks(test::encryptFields(f), 20);
        service->add(0x5870, "not read");
        service->add(0x5880, test::headerValue(byte0, static_cast<uint8_t>(parts.size() - 1), f));
        for (int i = 0; i < parts.size(); ++i) service->add(static_cast<quint16>(0x5885 + i), parts[i]);
    }

    QVLumerixItemRef item(const QString& id = kId) { return handler->getItemByUUID(id); }
    // Lets a connection run its course (peripheral answers take 10 ms each).
    void settle() { time.advance(1000); }

    VirtualTime time;
    ManualQueue main{time, "main"};
    FakeGattCentral* central = nullptr;
    RecordingDelegate delegate;
    std::vector<std::shared_ptr<FakeGattPeripheral>> peripherals;
    std::shared_ptr<QVLumerixHandler> handler;
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
        {"f0ff00017f80ff", {0, 0xFFFF, 0xFFFF, 0xFFFE, 0xFF80, 0x007F, 0}},  // bits 4-7 besides 0x40 ignored
        {"0a7f2040081004ffff", {0x0A, 0x7F, 0x20, 0x40, 8, 0x10, 4}},        // bytes past 6 ignored
        {"4103f0", {1, 3, 0x0F, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}},            // missing bytes read as 0
        {"", {0, 0, 0, 0, 0, 0, 0}},
    };
    auto p = addReceiver();
    for (const Case& c : cases) {
        handler->decrytLumerixHeader(item(), QByteArray::fromHex(c.hex));
        const LumerixHeaderStruct h = item()->lumerixHeader();
        EXPECT_EQ(std::memcmp(&h, &c.expected, sizeof h), 0)
            << c.hex << ": " << h.HeaderFlags << " " << h.LastDataIndex << " " << h.LengthOfSSID << " "
            << h.LengthOfWiFiPW << " " << h.LengthOfIP << " " << h.LengthOfReceiverName << " "
            << h.LengthOfLogincode;
    }
}

TEST_F(GattHandlerTest, AccumulationCompletesOnTheLastIndexInArrivalOrder) {
    auto p = addReceiver();
    auto it = item();
    struct Step {
        quint16 uuid;
        const char* value;
        bool complete;
        bool repeat;
    } steps[] = {
        {0x5885, "zero", true, false},   // before any header the last index is 0
        {0x5885, "zero", true, true},    // repeats return the flag without appending
        {0x5886, "one-", false, false},  // the header below arrived in between
        {0x5884, "back", false, false},  // index -1 never matches
        {0x5887, "two-", true, false},  {0x5887, "two-", true, true},
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
    EXPECT_EQ(log.count(QStringLiteral("updating characteristic<5885>...")), 1);
    EXPECT_EQ(log.count(QStringLiteral("updating characteristic<5887>...")), 1);
    EXPECT_EQ(it->characteristicInfo().size(), 4);
}

TEST_F(GattHandlerTest, DataDecodingCopiesFieldsWithSpillAndBoundedReads) {
    auto p = addReceiver();
    auto it = item();
    QByteArray plain(256, '\0');
    for (int i = 0; i < 256; ++i) plain[i] = static_cast<char>(i);
    struct Case {
        const char* what;
        QByteArray buffer;
        LumerixHeaderStruct header;
        std::function<void(const LumerixStruct&)> check;
    } cases[] = {
        {"five fields",
         test::encryptFields(kRoom4),
         {1, 2, 8, 10, 12, 6, 4},
         [](const LumerixStruct& r) {
             EXPECT_EQ(field(r.WiFiSSID, 32), QStringLiteral("Lab-WiFi"));
             EXPECT_EQ(field(r.WiFiKey, 64), QStringLiteral("s3cret-key"));
             EXPECT_EQ(field(r.ReceiverIP, 20), QStringLiteral("192.168.1.20"));
             EXPECT_EQ(field(r.ReceiverName, 40), QStringLiteral("Room 4"));
             EXPECT_EQ(field(r.ReceiverLoginCode, 20), QStringLiteral("1234"));
         }},
        {"spill into later fields, reads past 256 are zero",
         test::aesEcbEncrypt(plain),
         {0, 0, 170, 80, 20, 0, 0},
         [&plain](const LumerixStruct& r) {
             auto bytes = QByteArray(reinterpret_cast<const char*>(&r), sizeof r);
             EXPECT_EQ(bytes.mid(0, 32), plain.mid(0, 32));
             EXPECT_EQ(bytes.mid(32, 64), plain.mid(170, 64));     // the key's copy overwrote the SSID spill
             EXPECT_EQ(bytes.mid(96, 6), plain.mid(250, 6));       // IP: the last bytes of the area...
             EXPECT_EQ(bytes.mid(102, 14), QByteArray(14, '\0'));  // ...then zeros
             EXPECT_EQ(bytes.mid(116, 54), plain.mid(116, 54));    // SSID spill left standing
             EXPECT_EQ(bytes.mid(170), QByteArray(6, '\0'));
         }},
        {"buffer over 256 bytes",
         QByteArray(272, 'x'),
         {0, 0, 32, 64, 20, 40, 20},
         [](const LumerixStruct& r) {
             EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(&r), sizeof r), QByteArray(176, '\0'));
         }},
        {"not whole blocks",
         test::encryptFields(kRoom4).left(40),
         {0, 0, 8, 10, 12, 6, 4},
         [](const LumerixStruct& r) {
             EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(&r), sizeof r), QByteArray(176, '\0'));
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        it->setHasResolved(false);
        it->setDataBuffer(c.buffer);
        it->setLumerixHeader(c.header);
        delegate.statuses.clear();
        handler->decrytLumerixData(it);
        time.runUntilIdle();
        c.check(it->lumerix());
        EXPECT_TRUE(it->hasResolved());
        EXPECT_EQ(delegate.statuses, std::vector<int>{LumerixItemResolved});
    }
    EXPECT_EQ(log.lines().filter(QStringLiteral("failed (buffer too small)")).size(), 1);
    EXPECT_EQ(log.lines().filter(QStringLiteral("failed (length not a multiple of the block size)")).size(),
              1);
    EXPECT_FALSE(it->ipAddress().has_value());  // the GATT path fills only the record
}

using GattHandlerDeathTest = GattHandlerBase;

TEST_F(GattHandlerDeathTest, ALengthBeyondTheRecordEndsTheProcess) {
    auto p = addReceiver();
    auto it = item();
    it->setDataBuffer(test::encryptFields(kRoom4));
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
    serveConnectionInfo(*p, 0x41, kRoom4);
    auto it = item();
    handler->connectItemForTesting(it);
    settle();

    EXPECT_EQ(delegate.statuses,
              (std::vector<int>{LumerixItemConnected, LumerixItemResolved, LumerixItemDisconnected}));
    EXPECT_TRUE(delegate.errors.empty());
    EXPECT_TRUE(it->hasResolved());
    const LumerixStruct r = it->lumerix();
    EXPECT_EQ(field(r.WiFiSSID, 32), QStringLiteral("Lab-WiFi"));
    EXPECT_EQ(field(r.ReceiverLoginCode, 20), QStringLiteral("1234"));
    EXPECT_EQ(it->aveRssi(), -42);
    EXPECT_EQ(QStringList(p->reads.begin(), p->reads.end()).join(QLatin1Char(' ')),
              QStringLiteral("5880 5885 5886 5887"));
    EXPECT_EQ(handler->connectedPeer(), nullptr);
    EXPECT_TRUE(log.contains(QStringLiteral("-[QVLumerixHandler centralManager:didConnectPeripheral:]")));
    // Scanning resumes with continueScanAfterConnect (false: stop and clear the table).
    EXPECT_EQ(central->stopScanCalls, 1);
    EXPECT_TRUE(handler->discoveredDeviceInfo().isEmpty());
}

TEST_F(GattHandlerTest, ServicesAreAskedForAgainUntilTheReceiverServiceShowsUp) {
    auto p = addReceiver();
    serveConnectionInfo(*p, 0x41, kRoom4);
    p->hideServicesForDiscoveries = 3;
    handler->connectItemForTesting(item());
    settle();
    EXPECT_EQ(p->discoverServicesCalls, 4);
    EXPECT_EQ(delegate.statuses.back(), LumerixItemDisconnected);
    EXPECT_TRUE(std::count(delegate.statuses.begin(), delegate.statuses.end(), LumerixItemResolved) == 1);
}

TEST_F(GattHandlerTest, DisconnectionOutcomes) {
    struct Case {
        const char* what;
        std::optional<BleError> error;
        bool continueScan;
        std::vector<int> statuses;  // after the connected status
        std::vector<int> errors;
        int connects;
        const char* extraLog;
    } cases[] = {
        {"connection failed: retry, nothing else",
         BleError{10, QStringLiteral("connection failed")},
         false,
         {},
         {},
         2,
         "-[QVLumerixHandler centralManager:didDisconnectPeripheral:error:] retry connection"},
        {"other error: disconnected, reported",
         BleError{7, QStringLiteral("peer removed pairing")},
         true,
         {0},
         {7},
         1,
         "-[QVLumerixHandler centralManager:didDisconnectPeripheral:error:] "
         "00000000-0000-0000-0000-000000000002 "
         "peer removed pairing"},
        {"no error: disconnected quietly", std::nullopt, true, {0}, {}, 1, nullptr},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // No receiver service: the link stays up, asking for services, until it drops.
        const QString id = QStringLiteral("00000000-0000-0000-0000-00000000000%1").arg(++n);
        auto p = addReceiver(id);
        auto it = item(id);
        handler->setContinueScanAfterConnect(c.continueScan);
        central->connects.clear();
        delegate.statuses.clear();
        delegate.errors.clear();
        const int scans = central->scanCalls;
        handler->connectItemForTesting(it);
        settle();
        p->answersConnect = false;  // the retry is asked for, not answered
        log.clear();
        central->dropLink(p, c.error);
        settle();
        EXPECT_TRUE(log.contains(QString::fromLatin1(kDidDisconnect)));
        if (c.extraLog) {
            EXPECT_TRUE(log.contains(QString::fromLatin1(c.extraLog)))
                << log.lines().join(QLatin1Char('|')).toStdString();
        }
        std::vector<int> expected{LumerixItemConnected};
        expected.insert(expected.end(), c.statuses.begin(), c.statuses.end());
        EXPECT_EQ(delegate.statuses, expected);
        EXPECT_EQ(delegate.errors, c.errors);
        EXPECT_EQ(static_cast<int>(central->connects.size()), c.connects);
        EXPECT_EQ(handler->connectedPeer() == it, c.statuses.empty());
        EXPECT_EQ(central->scanCalls, scans + (c.statuses.empty() ? 0 : 1));
        handler->setConnectedPeer(nullptr);
    }
}

TEST_F(GattHandlerTest, AFailedConnectionIsReportedAndNotRetried) {
    auto p = addReceiver();
    p->answersConnect = false;
    handler->connectItemForTesting(item());
    central->failConnect(p, BleError{3, QStringLiteral("timed out")});
    time.runUntilIdle();
    EXPECT_TRUE(log.contains(
        QStringLiteral("-[QVLumerixHandler centralManager:didFailToConnectPeripheral:error:], connection "
                       "failed to peripheral: "
                       "Room 4 with UUID: 00000000-0000-0000-0000-A1B2C3D4E5F6, error:timed out")));
    EXPECT_EQ(delegate.errors, std::vector<int>{3});
    EXPECT_EQ(central->connects.size(), 1u);
    EXPECT_TRUE(delegate.statuses.empty());
}

TEST_F(GattHandlerTest, ValueIntakeRejectsErrorsAndUnknownItemsAndWarnsOnForeignPeripherals) {
    auto connectedOne = addReceiver();
    auto other = addReceiver(QStringLiteral("00000000-0000-0000-0000-0000000000B2"));
    auto stranger =
        std::make_shared<FakeGattPeripheral>(QStringLiteral("00000000-0000-0000-0000-0000000000C3"),
                                             QStringLiteral("Stranger"), handler->scanningQueue());
    handler->setConnectedPeer(item());
    const auto header = valued(0x5880, QByteArray::fromHex("4502f8f3f1f6f9"));

    handler->peripheralDidUpdateValueForCharacteristic(*other, header,
                                                       BleError{5, QStringLiteral("read not permitted")});
    EXPECT_TRUE(log.contains(QStringLiteral(
        "-[QVLumerixHandler peripheral:didUpdateValueForCharacteristic:error:], read not permitted")));
    handler->peripheralDidUpdateValueForCharacteristic(*stranger, header, std::nullopt);
    EXPECT_TRUE(log.contains(QStringLiteral("Error: item<Stranger> is not in discvoered list")));
    handler->peripheralDidUpdateValueForCharacteristic(*other, valued(0x5870, "x"), std::nullopt);
    EXPECT_EQ(log.lines().size(), 2);  // a characteristic that is not read is ignored silently

    handler->peripheralDidUpdateValueForCharacteristic(*other, header, std::nullopt);
    EXPECT_TRUE(log.contains(QStringLiteral("Warn: No connected device but is updating device: Room 4")));
    EXPECT_EQ(item(other->identifier())->lumerixHeader().LengthOfSSID, 7);  // processed all the same
    EXPECT_EQ(item()->lumerixHeader().LengthOfSSID, 0);
}

}  // namespace
}  // namespace lumerix
