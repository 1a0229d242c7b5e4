#pragma once
// `lumerix --doctor`: what the tray relies on, one check per line: passed (✓), failed (✗, with
// what to do), advice (!, a desktop part that is missing but not needed), or skipped (-, because a
// check it depends on failed; one line names the cause and lists them). Each check is a small function of
// what was found, so tests feed it findings; probes that look at the system (D-Bus, sysfs, sockets, /proc)
// are separate. The doctor only reads: it never powers an adapter or starts discovery, and the discovery
// filter it tries is reset at once.
//
// Essential (the tray cannot work without them, exit 1): the system bus, bluetoothd, an adapter,
// its power, no rfkill block, the discovery filter, the sender port. Advisory: a tray host (Lumerix
// keeps running without one), a notification server, the sender application, the saved receivers.
// LUMERIX_SYSFS, when set, stands for /sys (tests give their own rfkill switches).
#include <QList>
#include <QMap>
#include <QString>
#include <optional>

namespace lumerix {

struct DoctorCheck {
    QString name;
    bool ok = false;
    bool essential = false;
    QString detail;        // what was found
    QString remedy;        // what to do, when not ok; for a skipped check, what it needs
    bool skipped = false;  // not run: a check it depends on failed (ok is false)
};

// What the system bus and bluetoothd said.
struct BluetoothFindings {
    bool busReachable = false;
    QString busError;
    bool bluetoothdRunning = false;
    bool accessDenied = false;                    // bluetoothd refused to list its objects
    QString error;                                // why its objects could not be listed
    QMap<QString, std::optional<bool>> adapters;  // adapter object path -> Powered
    std::optional<QString> filterError;           // the discovery filter's answer; unset: not tried
};

enum class PortState { Free, InUse, Unusable };

class Doctor {
public:
    static constexpr const char* kSenderDesktopEntry = "com.Sharvane.Ondrel.desktop";
    static constexpr const char* kSenderProcess = "Sharvane";

    // System bus, bluetoothd, adapter, powered, discovery filter.
    static QList<DoctorCheck> bluetoothChecks(const BluetoothFindings& found);
    // Bluetooth rfkill switches under <sysfs>/class/rfkill.
    static DoctorCheck rfkillCheck(const QString& sysfsRoot);
    // sniWatcher: org.kde.StatusNotifierWatcher owned; xembedTray: the X tray selection has an owner
    // (unset: no display to ask).
    static DoctorCheck trayHostCheck(bool sniWatcher, std::optional<bool> xembedTray);
    static DoctorCheck notificationCheck(bool available);
    // desktopEntry: the sender's desktop entry path, empty when none; senderPids: its processes.
    static DoctorCheck senderCheck(const QString& desktopEntry, const QList<int>& senderPids);
    // otherLumerixPids: Lumerix processes other than this one.
    static DoctorCheck portCheck(quint16 port, PortState state, const QString& problem,
                                 const QList<int>& otherLumerixPids);
    // The saved table when there is one, else the list that would seed it.
    static DoctorCheck referenceTableCheck(const QString& savedTable, const QString& defaultTable);

    // Exit status: 0 when every essential check passed, else 1.
    static int exitCode(const QList<DoctorCheck>& checks);
    static QString text(const QList<DoctorCheck>& checks);
    static QString json(const QList<DoctorCheck>& checks);
};

// `lumerix --doctor [--json]`, on a QCoreApplication it creates.
int runDoctorMode(int argc, char** argv, bool json);

}  // namespace lumerix
