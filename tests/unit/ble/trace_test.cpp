#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include "ble/AdvertisementTrace.h"
#include "ble/SimulatedCentral.h"
#include "ble/TraceRecorder.h"
#include "dispatch/ManualQueue.h"

namespace lumerix {
namespace {

const QString kIdA = QStringLiteral("00000000-0000-0000-0000-AABBCCDDEE01");
const QString kIdB = QStringLiteral("00000000-0000-0000-0000-AABBCCDDEE02");

TEST(AdvertisementTrace, BadLinesAreReportedByNumberAndSkipped) {
    const QByteArray text =
        R"({"offsetMs":250,"identifier":"B","localName":null,"rssi":-80,"manufacturerData":null}
{"offsetMs":0,"identifier":"A","localName":"LX","rssi":-61.5,"manufacturerData":"FFff01"}

not json
[1,2]
{"offsetMs":-1,"identifier":"A","rssi":-60}
{"offsetMs":5,"identifier":"","rssi":-60}
{"offsetMs":5,"identifier":"A","rssi":"-60"}
{"offsetMs":5,"identifier":"A","rssi":-60,"manufacturerData":"abc"}
{"offsetMs":5,"identifier":"A","rssi":-60,"localName":7}
{"offsetMs":100,"identifier":"A","rssi":-62}
)";
    const AdvertisementTrace trace = AdvertisementTrace::parse(text);
    // Sorted by offset; absent keys read as absent values.
    const std::vector<TracedAdvertisement> expected = {
        {0, QStringLiteral("A"), {QStringLiteral("LX"), QByteArray::fromHex("ffff01")}, -61.5},
        {100, QStringLiteral("A"), {std::nullopt, std::nullopt}, -62},
        {250, QStringLiteral("B"), {std::nullopt, std::nullopt}, -80},
    };
    EXPECT_EQ(trace.advertisements, expected);
    QStringList numbers, expectedNumbers;
    for (const QString& p : trace.problems) numbers << p.section(QLatin1Char(':'), 0, 0);
    for (int line = 4; line <= 10; ++line) expectedNumbers << QStringLiteral("line %1").arg(line);
    EXPECT_EQ(numbers, expectedNumbers);
}

struct Heard {
    double atMs;
    QString identifier;
    double rssi;
    bool operator==(const Heard&) const = default;
};

class Listener final : public BleCentralDelegate {
public:
    explicit Listener(const Clock& clock) : clock_(clock) {}
    void centralManagerDidDiscoverPeripheral(const BlePeripheralRef& p, const AdvertisementData&,
                                             double rssi) override {
        heard.push_back({clock_.monotonicMs(), p->identifier(), rssi});
    }
    std::vector<Heard> heard;

private:
    const Clock& clock_;
};

// A trace replays at its recorded timing from the first scan start, a restarted scan skips what is
// past, and a recorder between the central and its delegate writes the same advertisements back.
TEST(AdvertisementTrace, ReplayTimingAndRecording) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("trace.jsonl"));
    auto time = std::make_shared<VirtualTime>();
    ManualQueue queue(*time, "scan");

    SimulatedScenario scenario;
    scenario.trace = {
        {250, kIdA, {QStringLiteral("LX"), QByteArray::fromHex("ffff0203")}, -70},
        {0, kIdA, {QStringLiteral("LX"), QByteArray::fromHex("ffff0102")}, -60},
        {100, kIdB, {QStringLiteral("Headphones"), std::nullopt}, -45},
        {400, kIdB, {QStringLiteral("Headphones"), std::nullopt}, -44},
    };
    auto recorder = std::make_shared<TraceRecorder>(time, path);
    ASSERT_TRUE(recorder->isOpen()) << recorder->error().toStdString();
    Listener listener(*time);
    auto central =
        TraceRecorder::recordingFactory(simulatedCentralFactory(scenario), recorder)(&listener, &queue);

    time->advance(30);  // nothing plays before the first scan
    central->scanForPeripherals(true);
    time->advance(120);  // now 150: the first two have played
    central->stopScan();
    time->advance(200);  // now 350: the one at 250 passes unheard
    central->scanForPeripherals(true);
    time->advance(1000);

    const std::vector<Heard> expectedHeard = {{30, kIdA, -60}, {130, kIdB, -45}, {430, kIdB, -44}};
    EXPECT_EQ(listener.heard, expectedHeard);

    QString error;
    const auto recorded = AdvertisementTrace::readFile(path, &error);
    ASSERT_TRUE(recorded) << error.toStdString();
    EXPECT_TRUE(recorded->problems.isEmpty());
    std::vector<TracedAdvertisement> expectedRecorded = {
        {30, kIdA, scenario.trace[1].data, -60},
        {130, kIdB, scenario.trace[2].data, -45},
        {430, kIdB, scenario.trace[3].data, -44},
    };
    EXPECT_EQ(recorded->advertisements, expectedRecorded);
}

TEST(AdvertisementTrace, UnreadableFiles) {
    QTemporaryDir dir;
    QString error;
    EXPECT_FALSE(AdvertisementTrace::readFile(dir.filePath(QStringLiteral("missing")), &error));
    EXPECT_TRUE(error.contains(QStringLiteral("cannot read the trace")));
    TraceRecorder recorder(std::make_shared<VirtualTime>(), dir.filePath(QStringLiteral("no/such/dir/t")));
    EXPECT_FALSE(recorder.isOpen());
}

}  // namespace
}  // namespace lumerix
