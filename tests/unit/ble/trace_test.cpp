#include <gtest/gtest.h>
#include <sys/stat.h>

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
    QStringList numbers;
    QStringList expectedNumbers;
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

// Overlong lines are skipped without being gathered, the line after one is still read, and past
// a few problems the rest are only counted.
TEST(AdvertisementTrace, LinesAreCappedAndProblemsCounted) {
    const QByteArray good = R"({"offsetMs":1,"identifier":"A","rssi":-60})";
    QByteArray text = R"({"offsetMs":0,"identifier":")" +
                      QByteArray(static_cast<int>(AdvertisementTrace::kMaxLineBytes), 'x') +
                      R"(","rssi":-1})" + "\n" + good + "\n";
    for (int i = 0; i < 100; ++i) text += "junk\n";
    text += good;  // the last line has no line end
    const AdvertisementTrace trace = AdvertisementTrace::parse(text);
    ASSERT_EQ(trace.advertisements.size(), 2u);
    EXPECT_EQ(trace.skippedLines, 101);
    ASSERT_EQ(trace.problems.size(), AdvertisementTrace::kMaxProblems);
    EXPECT_EQ(trace.problems[0],
              QStringLiteral("line 1: longer than %1 bytes").arg(AdvertisementTrace::kMaxLineBytes));
    EXPECT_TRUE(trace.problems[1].startsWith(QStringLiteral("line 3: ")));
    EXPECT_FALSE(trace.truncated);
}

// Files for --replay and --record: a regular trace, a link to it, a FIFO.
struct TraceFiles {
    QTemporaryDir dir;
    QString good;
    QString link;
    QString fifo;
    TraceFiles() {
        good = write("good.jsonl", QByteArray(R"({"offsetMs":0,"identifier":"A","rssi":-60})") + '\n');
        link = dir.filePath(QStringLiteral("link.jsonl"));
        EXPECT_TRUE(QFile::link(good, link));
        fifo = dir.filePath(QStringLiteral("fifo"));
        EXPECT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    }
    QString write(const char* name, const QByteArray& bytes) const {
        QString path = dir.filePath(QString::fromUtf8(name));
        QFile f(path);
        EXPECT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(bytes);
        return path;
    }
};

// --replay takes a regular file (a link to one is fine) holding at least one valid line.
TEST(AdvertisementTrace, ReplayReadsOnlyARegularFileWithAValidLine) {
    const TraceFiles files;
    struct Replay {
        const char* name;
        QString path;
        const char* error;  // empty when it reads
    };
    const Replay replays[] = {
        {"a trace", files.good, ""},
        {"a link to one", files.link, ""},
        {"missing", files.dir.filePath(QStringLiteral("missing")), "cannot read the trace"},
        {"a device that never ends", QStringLiteral("/dev/zero"), "not a regular file"},
        {"a FIFO without a writer", files.fifo, "not a regular file"},
        {"no valid line", files.write("bad.jsonl", "junk\n{}\n"), "holds no valid line"},
        {"empty", files.write("empty.jsonl", ""), "holds no valid line"},
    };
    for (const Replay& r : replays) {
        SCOPED_TRACE(r.name);
        QString error;
        const auto trace = AdvertisementTrace::readFile(r.path, &error);
        EXPECT_EQ(trace.has_value(), *r.error == '\0');
        EXPECT_TRUE(error.contains(QString::fromUtf8(r.error))) << error.toStdString();
    }
}

// --record creates a file for the user alone and refuses a link or a FIFO at its path.
TEST(AdvertisementTrace, RecordWritesOnlyTheUsersOwnRegularFile) {
    const TraceFiles files;
    const auto time = std::make_shared<VirtualTime>();
    const QString fresh = files.dir.filePath(QStringLiteral("fresh.jsonl"));
    TraceRecorder(time, fresh).record(kIdA, {QStringLiteral("LX"), std::nullopt}, -50);
    struct stat st {};
    ASSERT_EQ(::stat(QFile::encodeName(fresh).constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "a trace decodes to login codes";

    struct Record {
        const char* name;
        QString path;
        bool opens;
    };
    const Record records[] = {
        {"appending to the user's trace", fresh, true},
        {"a link", files.link, false},
        {"a FIFO", files.fifo, false},
        {"a missing folder", files.dir.filePath(QStringLiteral("no/such/dir/t")), false},
    };
    for (const Record& r : records) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(TraceRecorder(time, r.path).isOpen(), r.opens);
    }
    QString error;
    const auto target = AdvertisementTrace::readFile(files.good, &error);
    ASSERT_TRUE(target) << error.toStdString();
    EXPECT_EQ(target->advertisements.size(), 1u) << "the link's target was not written through";
}

}  // namespace
}  // namespace lumerix
