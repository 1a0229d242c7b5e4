// The legacy reader end to end on the in-process GATT fake, on virtual time.
#include <gtest/gtest.h>

#include "dispatch/ManualQueue.h"
#include "gatt/FakeGattPeripheral.h"
#include "gatt/GattPayload.h"
#include "legacy/CLumerix.h"
#include "log/Log.h"

namespace lumerix {
namespace {

using test::ConnectionFields;
using test::FakeGattCentral;
using test::FakeGattPeripheral;

QString beaconId(int n) {
    return QStringLiteral("00000000-0000-0000-0000-0000000000%1").arg(n, 2, 10, QLatin1Char('0'));
}

class LegacyReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        CLumerixEnvironment env;
        env.clock = std::shared_ptr<Clock>(std::shared_ptr<Clock>(), &time);
        env.queue = &main;
        env.readerQueue = &readerQueue;
        env.makeCentral = [this](BleCentralDelegate* d, DispatchQueue* q) {
            auto c = std::make_unique<FakeGattCentral>(d, q);
            central = c.get();
            return c;
        };
        reader = CLumerix::create(env);
        time.runUntilIdle();
    }

    // A receiver serving the header and the data values of `payload`.
    std::shared_ptr<FakeGattPeripheral> addBeacon(int n, uint8_t byte0, const QByteArray& payload) {
        auto p = std::make_shared<FakeGattPeripheral>(beaconId(n), QStringLiteral("LX"), &main);
        test::serveConnectionInfo(*p, byte0, test::kRoom4, payload);
        beacons.push_back(p);
        return p;
    }

    // Every beacon in `advertising` is heard once a second.
    void runSeconds(int seconds, const std::vector<std::shared_ptr<FakeGattPeripheral>>& advertising) {
        for (int i = 0; i < seconds; ++i) {
            for (const auto& p : advertising) central->advertise(p, QStringLiteral("LX"), -60);
            time.advance(1000);
        }
    }

    std::shared_ptr<SharvaneInfo> record(const QString& id) {
        for (const auto& info : reader->lookupTable())
            if (info->value(QStringLiteral("PeripheralUUID")) == id) return info;
        return nullptr;
    }

    int connectsTo(const QString& id) const {
        return static_cast<int>(std::count(central->connects.begin(), central->connects.end(), id));
    }

    ScopedLogCapture log;
    VirtualTime time;
    ManualQueue main{time, "main"};
    ManualQueue readerQueue{time, "reader"};
    FakeGattCentral* central = nullptr;
    std::vector<std::shared_ptr<FakeGattPeripheral>> beacons;
    std::shared_ptr<CLumerix> reader;
};

TEST_F(LegacyReaderTest, ReadsTwoBeaconsInTurnAndDecodesTheirPayloads) {
    // One encrypted with complemented lengths, one plain text.
    std::vector<std::shared_ptr<FakeGattPeripheral>> both{
        addBeacon(0, 0x41, test::encryptFields(test::kRoom4)), addBeacon(1, 0x40, test::kRoom4.joined())};
    // The alive check queues both at 6 s; the reader takes one every 8 s from 8 s on.
    runSeconds(7, both);
    EXPECT_EQ(reader->waitingPeripherals().size(), 2);
    for (size_t turn = 1; turn <= 2; ++turn) {
        runSeconds(8, both);
        EXPECT_EQ(central->connects.size(), turn) << "one connection per turn";
    }
    const char* keys[] = {"WiFiSSID", "WiFiKey", "ReceiverIP", "ReceiverName", "ReceiverLoginCode"};
    const char* values[] = {"Lab-WiFi", "s3cret-key", "192.168.1.20", "Room 4", "1234"};
    for (int i = 0; i < 2; ++i) {
        auto info = record(beaconId(i));
        ASSERT_NE(info, nullptr) << i;
        EXPECT_EQ(connectsTo(beaconId(i)), 1);
        for (int f = 0; f < 5; ++f)
            EXPECT_EQ(info->value(QString::fromLatin1(keys[f])), QString::fromLatin1(values[f])) << keys[f];
    }
}

TEST_F(LegacyReaderTest, ARecordStaysFreshFor300Seconds) {
    auto a = addBeacon(1, 0x41, test::encryptFields(test::kRoom4));
    runSeconds(9, {a});
    ASSERT_NE(record(beaconId(1)), nullptr);
    EXPECT_NEAR(record(beaconId(1))->GetTimpStamp(), time.nowMs() / 1000.0 - 1.0, 0.1);  // read at 8 s
    // Read at 8 s; the check at 306 s finds it 298 s old, the one at 312 s queues it for the next turn.
    runSeconds(311 - 9, {a});
    EXPECT_EQ(connectsTo(beaconId(1)), 1);
    runSeconds(10, {a});
    EXPECT_EQ(connectsTo(beaconId(1)), 2);
    EXPECT_EQ(reader->lookupTable().size(), 1);
    EXPECT_EQ(log.lines().filter(QStringLiteral("Get new Data: ")).size(), 1);
    EXPECT_GT(record(beaconId(1))->GetTimpStamp(), 1767225600.0 + 311);
}

TEST_F(LegacyReaderTest, ABeaconNotHeardFor20SecondsIsDropped) {
    auto a = addBeacon(1, 0x41, test::encryptFields(test::kRoom4));
    auto b = addBeacon(2, 0x41, test::encryptFields(test::kRoom4));
    runSeconds(30, {a, b});  // a is last heard at 29 s
    runSeconds(23, {b});     // the check at 48 s finds 19 s
    EXPECT_EQ(reader->livedBeacons().size(), 2);
    runSeconds(1, {b});  // the check at 54 s finds 25 s
    ASSERT_EQ(reader->livedBeacons().size(), 1);
    EXPECT_EQ(reader->livedBeacons().first()->peripheral()->identifier(), beaconId(2));
    const double start = 1767225600.0;
    EXPECT_TRUE(log.contains(Log::format("Beacon doesn't alive ID: %s currentTime %lf BeaconStamp %lf\n",
                                         beaconId(1).toUtf8().constData(), start + 54, start + 29)));
}

TEST_F(LegacyReaderTest, AReadThatNeverStartsEndsAfter8SecondsAndIsRetried) {
    auto c = addBeacon(1, 0x41, test::encryptFields(test::kRoom4));
    c->answersConnect = false;
    runSeconds(8, {c});  // connect requested at 8 s
    time.advance(7900);
    EXPECT_EQ(connectsTo(beaconId(1)), 1);
    EXPECT_TRUE(central->cancels.empty());
    time.advance(100);  // 16 s
    EXPECT_EQ(central->cancels, std::vector<QString>{beaconId(1)});
    EXPECT_TRUE(log.contains(QStringLiteral("CLumerix connect timeout %1\n").arg(beaconId(1))));
    runSeconds(9, {c});  // queued again at 18 s, connected again at 24 s
    EXPECT_EQ(connectsTo(beaconId(1)), 2);
    EXPECT_EQ(log.count(QStringLiteral("Wait to Search UUID %1 \n").arg(beaconId(1))), 2);
}

}  // namespace
}  // namespace lumerix
