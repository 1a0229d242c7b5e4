#include "app/Doctor.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>

namespace lumerix {
namespace {

// "name:ok" per check, e.g. "bluetoothd:1".
QStringList verdicts(const QList<DoctorCheck>& checks) {
    QStringList out;
    for (const DoctorCheck& c : checks) out << c.name + QLatin1Char(':') + QString::number(c.ok);
    return out;
}

void write(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(path.section(QLatin1Char('/'), 0, -2));
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(bytes);
}

TEST(DoctorTest, BluetoothChecksStopAtTheFirstMissingLayer) {
    const QString hci0 = QStringLiteral("/org/bluez/hci0");
    const QString hci1 = QStringLiteral("/org/bluez/hci1");
    BluetoothFindings noBus;
    BluetoothFindings noDaemon;
    noDaemon.busReachable = true;
    BluetoothFindings denied = noDaemon;
    denied.bluetoothdRunning = true;
    denied.accessDenied = true;
    denied.error = QStringLiteral("Rejected send message");
    BluetoothFindings noAdapter = noDaemon;
    noAdapter.bluetoothdRunning = true;
    BluetoothFindings defaultOff = noAdapter;
    defaultOff.adapters = {{hci0, false}, {hci1, true}};  // the default adapter decides
    BluetoothFindings filterRefused = noAdapter;
    filterRefused.adapters = {{hci0, true}};
    filterRefused.filterError = QStringLiteral("org.bluez.Error.InvalidArguments: Invalid arguments");
    BluetoothFindings well = filterRefused;
    well.filterError = QString();

    const struct {
        const char* name;
        BluetoothFindings found;
        const char* verdicts;
    } cases[] = {
        {"no bus", noBus, "0 - - - -"},
        {"no bluetoothd", noDaemon, "1 0 - - -"},
        {"access denied", denied, "1 1 0 - -"},
        {"no adapter", noAdapter, "1 1 0 - -"},
        {"default adapter off", defaultOff, "1 1 1 0 -"},
        {"filter refused", filterRefused, "1 1 1 1 0"},
        {"all well", well, "1 1 1 1 1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QList<DoctorCheck> checks = Doctor::bluetoothChecks(c.found);
        QStringList oks;
        for (const DoctorCheck& check : checks) {
            oks << (check.skipped ? QStringLiteral("-") : QString::number(check.ok));
            EXPECT_TRUE(check.essential);
            EXPECT_FALSE(check.ok && check.skipped);
            EXPECT_EQ(check.remedy.isEmpty(), check.ok) << check.name.toStdString();
        }
        EXPECT_EQ(oks.join(u' '), QLatin1String(c.verdicts));
        EXPECT_EQ(Doctor::exitCode(checks), QLatin1String(c.verdicts).contains(u'0') ? 1 : 0);
        // One cause, one line: the failure, then the checks it kept from running on one line.
        const QStringList lines = Doctor::text(checks).split(u'\n', Qt::SkipEmptyParts);
        EXPECT_EQ(lines.filter(QRegularExpression(QStringLiteral("^✗ "))).size(),
                  QLatin1String(c.verdicts).count(u'0'));
        EXPECT_LE(lines.filter(QRegularExpression(QStringLiteral("^- Skipped"))).size(), 1);
    }
    const QStringList noBusLines =
        Doctor::text(Doctor::bluetoothChecks(noBus)).split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(noBusLines.size(), 3);
    EXPECT_EQ(noBusLines.at(1),
              QStringLiteral("- Skipped (needs the system bus): bluetoothd, Bluetooth adapter, "
                             "Adapter powered, Discovery filter"));
    EXPECT_TRUE(Doctor::bluetoothChecks(defaultOff).at(3).detail.contains(QLatin1String("hci0 is off")));
}

TEST(DoctorTest, RfkillReadsOnlyBluetoothSwitches) {
    const struct {
        const char* name;
        std::vector<const char*> switches;  // "type soft hard"
        bool ok;
        const char* detail;
    } cases[] = {
        {"none", {}, true, "no Bluetooth switch"},
        {"unblocked", {"bluetooth 0 0"}, true, "not blocked"},
        {"wlan blocked only", {"wlan 1 1"}, true, "no Bluetooth"},
        {"soft", {"bluetooth 1 0"}, false, "soft-blocked"},
        {"hard wins", {"bluetooth 1 0", "bluetooth 0 1"}, false, "hard-blocked"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir sysfs;
        for (size_t i = 0; i < c.switches.size(); ++i) {
            const QString entry = sysfs.path() + QStringLiteral("/class/rfkill/rfkill%1/").arg(i);
            const QList<QByteArray> values = QByteArray(c.switches[i]).split(' ');
            write(entry + QLatin1String("type"), values[0] + '\n');
            write(entry + QLatin1String("soft"), values[1] + '\n');
            write(entry + QLatin1String("hard"), values[2] + '\n');
        }
        const DoctorCheck check = Doctor::rfkillCheck(sysfs.path());
        EXPECT_EQ(check.ok, c.ok);
        EXPECT_TRUE(check.detail.contains(QLatin1String(c.detail))) << check.detail.toStdString();
    }
}

TEST(DoctorTest, ReferenceTableCheckReadsTheSavedTableOrItsSeed) {
    QTemporaryDir dir;
    const QString good = dir.filePath(QStringLiteral("good.plist"));
    const QString empty = dir.filePath(QStringLiteral("empty.plist"));
    const QString bad = dir.filePath(QStringLiteral("bad.plist"));
    const QString missing = dir.filePath(QStringLiteral("missing.plist"));
    write(good,
          "<plist version=\"1.0\"><array><dict><key>Device</key><string>Lab</string></dict></array></plist>");
    write(empty, "<plist version=\"1.0\"><array/></plist>");
    write(bad, "not a list");
    const struct {
        QString saved, seed;
        bool ok;
        const char* detail;
    } cases[] = {
        {good, bad, true, "1 saved receiver(s)"},
        {bad, good, false, "bad.plist is not a readable list"},
        {missing, good, true, "takes 1 receiver(s) from"},
        {missing, empty, true, "begins with an empty list"},
        {missing, missing, true, "begins with an empty list"},
        {missing, bad, false, "bad.plist is not a readable list"},
    };
    for (const auto& c : cases) {
        const DoctorCheck check = Doctor::referenceTableCheck(c.saved, c.seed);
        EXPECT_EQ(check.ok, c.ok) << c.detail;
        EXPECT_TRUE(check.detail.contains(QLatin1String(c.detail))) << check.detail.toStdString();
        EXPECT_FALSE(check.essential);
    }
}

TEST(DoctorTest, AdvisoryFailuresShowTheirRemedyButKeepExitZero) {
    QList<DoctorCheck> checks = {
        Doctor::portCheck(19319, PortState::InUse, QString(), {4242}),
        Doctor::trayHostCheck(false, std::nullopt),
        Doctor::senderCheck(QString(), {}),
    };
    EXPECT_EQ(verdicts(checks),
              QStringList({QStringLiteral("Port 127.0.0.1:19319:1"), QStringLiteral("Tray host:0"),
                           QStringLiteral("Sender application:0")}));
    EXPECT_EQ(Doctor::exitCode(checks), 0);
    const QStringList lines = Doctor::text(checks).split(u'\n', Qt::SkipEmptyParts);
    EXPECT_EQ(lines.at(0), QStringLiteral("✓ Port 127.0.0.1:19319: held by the running Lumerix (pid 4242)"));
    EXPECT_TRUE(lines.at(1).startsWith(QStringLiteral("! Tray host: "))) << "advice, not a failure";
    EXPECT_TRUE(lines.at(1).contains(QStringLiteral(" — enable a tray")));
    EXPECT_EQ(lines.last(), QStringLiteral("The tray can work."));

    checks << Doctor::portCheck(19319, PortState::InUse, QString(), {});
    EXPECT_EQ(Doctor::exitCode(checks), 1);
    EXPECT_TRUE(Doctor::text(checks).contains(QStringLiteral("ss -ltnp 'sport = :19319'")));
    const QJsonObject report = QJsonDocument::fromJson(Doctor::json(checks).toUtf8()).object();
    EXPECT_FALSE(report.value(QStringLiteral("ok")).toBool());
    EXPECT_EQ(report.value(QStringLiteral("checks")).toArray().size(), 4);
}

}  // namespace
}  // namespace lumerix
