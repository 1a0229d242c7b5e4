#include "app/Doctor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/ReferenceTableLocation.h"
#include "app/Translations.h"
#include "app/TrayHost.h"
#include "io/RegularFile.h"
#include "platform/bluez/ObjectManager.h"
#include "platform/linux/DesktopEntry.h"
#include "platform/linux/GetPID.h"
#include "platform/linux/PathManager.h"
#include "sender/ConnectionInfo.h"
#include "shell/AppDelegate.h"
#include "shell/ReferenceTable.h"

namespace lumerix {
namespace {

constexpr int kCallTimeoutMs = 2000;
const QString kBluez = QStringLiteral("org.bluez");
const QString kAdapterInterface = QStringLiteral("org.bluez.Adapter1");

DoctorCheck passed(const QString& name, bool essential, const QString& detail) {
    return {name, true, essential, detail, QString()};
}

DoctorCheck failed(const QString& name, bool essential, const QString& detail, const QString& remedy) {
    return {name, false, essential, detail, remedy};
}

// Not run because what it needs failed; the failed check is the one line that tells why.
DoctorCheck skipped(const QString& name, const QString& needs) {
    DoctorCheck check{name, false, true, QString(), needs};
    check.skipped = true;
    return check;
}

QString adapterName(const QString& path) { return path.section(QLatin1Char('/'), -1); }

// ---- probes: what the system says ----------------------------------------------------------------

QDBusMessage callAdapter(QDBusConnection& bus, const QString& path, const QVariantMap& filter) {
    QDBusMessage call =
        QDBusMessage::createMethodCall(kBluez, path, kAdapterInterface, QStringLiteral("SetDiscoveryFilter"));
    call << filter;
    return bus.call(call, QDBus::Block, kCallTimeoutMs);
}

BluetoothFindings probeBluetooth() {
    BluetoothFindings found;
    QDBusConnection bus = QDBusConnection::systemBus();
    found.busReachable = bus.isConnected();
    if (!found.busReachable) {
        found.busError = bus.lastError().message();
        return found;
    }
    // Only a running bluetoothd is asked: a call to an activatable name would start it.
    found.bluetoothdRunning = bus.interface()->isServiceRegistered(kBluez).value();
    if (!found.bluetoothdRunning) return found;

    // Read as the tray reads it, so that the two never disagree about adapters and power.
    const bluez::Snapshot snapshot = bluez::ObjectManager::takeSnapshot(kCallTimeoutMs);
    if (!snapshot.reached || !snapshot.error.isEmpty()) {
        found.accessDenied = snapshot.accessDenied;
        found.error = snapshot.error;
        return found;
    }
    for (const QString& path : snapshot.adapterPaths())
        found.adapters.insert(path, bluez::adapterPowered(snapshot, path));

    // The filter the scan sets, tried and then cleared with an empty one; nothing else is called.
    // bluetoothd refuses filters while the adapter is off, so an adapter that is off is left alone.
    const QString adapter = bluez::defaultAdapterPath(found.adapters.keys());
    if (adapter.isEmpty() || !found.adapters.value(adapter).value_or(false)) return found;
    const QDBusMessage set = callAdapter(bus, adapter,
                                         {{QStringLiteral("Transport"), QStringLiteral("le")},
                                          {QStringLiteral("DuplicateData"), true},
                                          {QStringLiteral("Pattern"), QStringLiteral("LX")}});
    if (set.type() != QDBusMessage::ReplyMessage) {
        found.filterError = set.errorName() + QStringLiteral(": ") + set.errorMessage();
        return found;
    }
    found.filterError = QString();
    callAdapter(bus, adapter, QVariantMap());
    return found;
}

bool nameOwned(QDBusConnection& bus, const QString& name, bool orActivatable) {
    if (!bus.isConnected()) return false;
    if (bus.interface()->isServiceRegistered(name).value()) return true;
    if (!orActivatable) return false;
    const QDBusMessage reply =
        bus.call(QDBusMessage::createMethodCall(
                     QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                     QStringLiteral("org.freedesktop.DBus"), QStringLiteral("ListActivatableNames")),
                 QDBus::Block, kCallTimeoutMs);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty() &&
           reply.arguments().constFirst().toStringList().contains(name);
}

// Whether the X server's default screen has a system tray; unset without a display to ask.
std::optional<bool> probeXEmbedTray() {
    if (qEnvironmentVariableIsEmpty("DISPLAY")) return std::nullopt;
    return TrayHost::xembedSelectionOwned();
}

QList<int> processes(const char* name, bool excludingSelf) {
    int32_t pids[64];
    uint32_t count = 0;
    int error = 0;
    QList<int> out;
    if (GetAllPIDsForProcessName(name, static_cast<uint32_t>(getuid()), pids, 64, &count, &error) != 0)
        return out;
    for (uint32_t i = 0; i < count; ++i) {
        if (!excludingSelf || pids[i] != getpid()) out << pids[i];
    }
    return out;
}

PortState probePort(quint16 port, QString* problem) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *problem = QString::fromLocal8Bit(std::strerror(errno));
        return PortState::Unusable;
    }
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    PortState state = PortState::Free;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        state = errno == EADDRINUSE ? PortState::InUse : PortState::Unusable;
        *problem = QString::fromLocal8Bit(std::strerror(errno));
    }
    ::close(fd);
    return state;
}

QString pidList(const QList<int>& pids) {
    QStringList parts;
    for (int pid : pids) parts << QString::number(pid);
    return parts.join(QStringLiteral(", "));
}

}  // namespace

// ---- checks: what the findings mean ------------------------------------------------------------------

QList<DoctorCheck> Doctor::bluetoothChecks(const BluetoothFindings& found) {
    const QString bus = QCoreApplication::translate("Doctor", "System bus");
    const QString daemon = QStringLiteral("bluetoothd");
    const QString adapter = QCoreApplication::translate("Doctor", "Bluetooth adapter");
    const QString power = QCoreApplication::translate("Doctor", "Adapter powered");
    const QString filter = QCoreApplication::translate("Doctor", "Discovery filter");

    QList<DoctorCheck> checks;
    if (!found.busReachable) {
        const QString why = found.busError.isEmpty() ? QCoreApplication::translate("Doctor", "cannot connect")
                                                     : found.busError;
        checks << failed(
            bus, true, why,
            QCoreApplication::translate("Doctor", "start the system bus: sudo systemctl start dbus"));
        for (const QString& name : {daemon, adapter, power, filter})
            checks << skipped(name, QCoreApplication::translate("Doctor", "needs the system bus"));
        return checks;
    }
    checks << passed(bus, true, QCoreApplication::translate("Doctor", "reachable"));
    if (!found.bluetoothdRunning) {
        checks << failed(daemon, true,
                         QCoreApplication::translate("Doctor", "org.bluez is not on the system bus"),
                         QCoreApplication::translate(
                             "Doctor", "install bluez and start it: sudo systemctl enable --now bluetooth"));
        for (const QString& name : {adapter, power, filter})
            checks << skipped(name, QCoreApplication::translate("Doctor", "needs bluetoothd"));
        return checks;
    }
    checks << passed(daemon, true, QCoreApplication::translate("Doctor", "running"));

    const QString path = bluez::defaultAdapterPath(found.adapters.keys());
    if (found.accessDenied) {
        checks << failed(
            adapter, true,
            QCoreApplication::translate("Doctor", "bluetoothd refused to answer: ") + found.error,
            QCoreApplication::translate("Doctor",
                                        "allow this user to use Bluetooth (the bluetooth group or the D-Bus "
                                        "policy of org.bluez)"));
    } else if (!found.error.isEmpty()) {
        checks << failed(
            adapter, true, QCoreApplication::translate("Doctor", "bluetoothd did not answer: ") + found.error,
            QCoreApplication::translate("Doctor", "restart it: sudo systemctl restart bluetooth"));
    } else if (path.isEmpty()) {
        checks << failed(
            adapter, true, QCoreApplication::translate("Doctor", "none"),
            QCoreApplication::translate(
                "Doctor", "plug in a Bluetooth adapter, or check that its driver is loaded (dmesg)"));
    } else {
        checks << passed(adapter, true, adapterName(path));
    }
    if (path.isEmpty()) {
        for (const QString& name : {power, filter})
            checks << skipped(name, QCoreApplication::translate("Doctor", "needs an adapter"));
        return checks;
    }

    const std::optional<bool> powered = found.adapters.value(path);
    if (powered.value_or(false)) {
        checks << passed(power, true,
                         QCoreApplication::translate("Doctor", "%1 is on").arg(adapterName(path)));
    } else {
        checks << failed(
            power, true,
            powered ? QCoreApplication::translate("Doctor", "%1 is off").arg(adapterName(path))
                    : QCoreApplication::translate("Doctor", "%1 does not say").arg(adapterName(path)),
            QCoreApplication::translate("Doctor", "turn Bluetooth on: bluetoothctl power on"));
    }
    if (!found.filterError) {
        checks << skipped(filter, QCoreApplication::translate("Doctor", "needs the adapter on"));
    } else if (found.filterError->isEmpty()) {
        checks << passed(
            filter, true,
            QCoreApplication::translate("Doctor", "Transport le with DuplicateData and Pattern LX accepted"));
    } else {
        checks << failed(
            filter, true, QCoreApplication::translate("Doctor", "refused: ") + *found.filterError,
            QCoreApplication::translate("Doctor",
                                        "update BlueZ (5.50 or later) and make sure no other program holds a "
                                        "different filter"));
    }
    return checks;
}

DoctorCheck Doctor::rfkillCheck(const QString& sysfsRoot) {
    const QString name = QStringLiteral("rfkill");
    const QDir dir(sysfsRoot + QLatin1String("/class/rfkill"));
    const auto read = [&dir](const QString& entry, const char* file) {
        QFile f(dir.filePath(entry + QLatin1Char('/') + QLatin1String(file)));
        return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()).trimmed() : QString();
    };
    QStringList soft;
    QStringList hard;
    int switches = 0;
    for (const QString& entry : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        if (read(entry, "type") != QLatin1String("bluetooth")) continue;
        ++switches;
        const QString label = read(entry, "name").isEmpty() ? entry : read(entry, "name");
        if (read(entry, "hard") == QLatin1String("1")) hard << label;
        if (read(entry, "soft") == QLatin1String("1")) soft << label;
    }
    if (!hard.isEmpty()) {
        return failed(
            name, true,
            QCoreApplication::translate("Doctor", "hard-blocked: ") + hard.join(QStringLiteral(", ")),
            QCoreApplication::translate(
                "Doctor", "turn on the wireless switch or key of this computer (or its firmware setting)"));
    }
    if (!soft.isEmpty()) {
        return failed(
            name, true,
            QCoreApplication::translate("Doctor", "soft-blocked: ") + soft.join(QStringLiteral(", ")),
            QCoreApplication::translate("Doctor", "rfkill unblock bluetooth"));
    }
    return passed(name, true,
                  switches == 0 ? QCoreApplication::translate("Doctor", "no Bluetooth switch")
                                : QCoreApplication::translate("Doctor", "Bluetooth not blocked"));
}

DoctorCheck Doctor::trayHostCheck(bool sniWatcher, std::optional<bool> xembedTray) {
    const QString name = QCoreApplication::translate("Doctor", "Tray host");
    if (sniWatcher)
        return passed(name, false,
                      QCoreApplication::translate("Doctor", "StatusNotifierWatcher on the session bus"));
    if (xembedTray.value_or(false))
        return passed(name, false, QCoreApplication::translate("Doctor", "X11 system tray"));
    return failed(name, false,
                  QCoreApplication::translate("Doctor", "no StatusNotifierWatcher and no X11 system tray"),
                  QCoreApplication::translate(
                      "Doctor",
                      "enable a tray (on GNOME the AppIndicator extension); lumerix --scan works without "
                      "one"));
}

DoctorCheck Doctor::notificationCheck(bool available) {
    const QString name = QCoreApplication::translate("Doctor", "Notification server");
    if (available)
        return passed(name, false, QCoreApplication::translate("Doctor", "org.freedesktop.Notifications"));
    return failed(
        name, false, QCoreApplication::translate("Doctor", "none on the session bus"),
        QCoreApplication::translate("Doctor", "install or start one (the desktop's own, or dunst or mako)"));
}

DoctorCheck Doctor::senderCheck(const QString& desktopEntry, const QList<int>& senderPids) {
    const QString name = QCoreApplication::translate("Doctor", "Sender application");
    const QString running =
        senderPids.isEmpty()
            ? QCoreApplication::translate("Doctor", "not running")
            : QCoreApplication::translate("Doctor", "running (pid %1)").arg(pidList(senderPids));
    if (!desktopEntry.isEmpty()) {
        return passed(
            name, false,
            QCoreApplication::translate("Doctor", "installed, ") + running +
                (senderPids.isEmpty()
                     ? QCoreApplication::translate("Doctor", ": Lumerix starts it when you pick a receiver")
                     : QString()));
    }
    return failed(name, false,
                  QCoreApplication::translate("Doctor", "no %1 in the applications folders, %2")
                      .arg(QLatin1String(kSenderDesktopEntry), running),
                  QCoreApplication::translate("Doctor", "install the sender application (Sharvane)"));
}

DoctorCheck Doctor::portCheck(quint16 port, PortState state, const QString& problem,
                              const QList<int>& otherLumerixPids) {
    const QString name = QCoreApplication::translate("Doctor", "Port 127.0.0.1:%1").arg(port);
    switch (state) {
        case PortState::Free:
            return passed(name, true, QCoreApplication::translate("Doctor", "free"));
        case PortState::InUse:
            if (!otherLumerixPids.isEmpty())
                return passed(name, true,
                              QCoreApplication::translate("Doctor", "held by the running Lumerix (pid %1)")
                                  .arg(pidList(otherLumerixPids)));
            return failed(
                name, true, QCoreApplication::translate("Doctor", "held by another program"),
                QCoreApplication::translate("Doctor", "find it with: ss -ltnp 'sport = :%1'").arg(port));
        case PortState::Unusable:
            break;
    }
    return failed(name, true, QCoreApplication::translate("Doctor", "cannot be opened: ") + problem,
                  QCoreApplication::translate("Doctor", "check that the loopback interface is up"));
}

DoctorCheck Doctor::referenceTableCheck(const QString& savedTable, const QString& defaultTable) {
    const QString name = QCoreApplication::translate("Doctor", "Saved receivers");
    if (RegularFile::exists(savedTable)) {
        const auto saved = ReferenceTable::arrayWithContentsOfFile(savedTable);
        if (saved)
            return passed(name, false,
                          QCoreApplication::translate("Doctor", "%1 saved receiver(s) in %2")
                              .arg(saved->size())
                              .arg(savedTable));
        return failed(
            name, false,
            savedTable + QCoreApplication::translate(
                             "Doctor", " is not a readable list (Lumerix keeps it aside and starts empty)"),
            QCoreApplication::translate("Doctor", "repair it (plistutil -i) or remove it"));
    }
    if (!QFileInfo::exists(defaultTable))
        return passed(name, false,
                      QCoreApplication::translate(
                          "Doctor", "none saved yet; the first start begins with an empty list"));
    const auto seed = ReferenceTable::arrayWithContentsOfFile(defaultTable, true);
    if (seed && seed->isEmpty())
        return passed(name, false,
                      QCoreApplication::translate(
                          "Doctor", "none saved yet; the first start begins with an empty list"));
    if (seed) {
        return passed(name, false,
                      QCoreApplication::translate(
                          "Doctor", "none saved yet; the first start takes %1 receiver(s) from %2")
                          .arg(seed->size())
                          .arg(defaultTable));
    }
    return failed(
        name, false, defaultTable + QCoreApplication::translate("Doctor", " is not a readable list"),
        QCoreApplication::translate("Doctor", "repair the default list (plistutil -i) or remove it"));
}

int Doctor::exitCode(const QList<DoctorCheck>& checks) {
    for (const DoctorCheck& c : checks) {
        if (c.essential && !c.ok && !c.skipped) return 1;
    }
    return 0;
}

QString Doctor::text(const QList<DoctorCheck>& checks) {
    QString out;
    for (qsizetype i = 0; i < checks.size(); ++i) {
        const DoctorCheck& c = checks.at(i);
        if (c.skipped) {
            // A run of checks skipped for the same reason is one line.
            QStringList names{c.name};
            while (i + 1 < checks.size() && checks.at(i + 1).skipped && checks.at(i + 1).remedy == c.remedy)
                names << checks.at(++i).name;
            out += QStringLiteral("- ") + QCoreApplication::translate("Doctor", "Skipped (%1): %2")
                                              .arg(c.remedy, names.join(QStringLiteral(", ")));
        } else {
            const QString mark = c.ok          ? QStringLiteral("✓ ")
                                 : c.essential ? QStringLiteral("✗ ")
                                               : QStringLiteral("! ");
            out += mark + c.name + QStringLiteral(": ") + c.detail;
            if (!c.ok) out += QStringLiteral(" — ") + c.remedy;
        }
        out += QLatin1Char('\n');
    }
    out += exitCode(checks) == 0 ? QCoreApplication::translate("Doctor", "The tray can work.")
                                 : QCoreApplication::translate(
                                       "Doctor", "The tray cannot work until the checks marked ✗ pass.");
    out += QLatin1Char('\n');
    return out;
}

QString Doctor::json(const QList<DoctorCheck>& checks) {
    QJsonArray array;
    for (const DoctorCheck& c : checks) {
        QJsonObject o;
        o.insert(QStringLiteral("check"), c.name);
        o.insert(QStringLiteral("ok"), c.ok);
        o.insert(QStringLiteral("essential"), c.essential);
        o.insert(QStringLiteral("detail"), c.detail);
        if (c.skipped) {
            o.insert(QStringLiteral("skipped"), true);
            o.insert(QStringLiteral("needs"), c.remedy);
        } else if (!c.ok) {
            o.insert(QStringLiteral("remedy"), c.remedy);
        }
        array.append(o);
    }
    QJsonObject root;
    root.insert(QStringLiteral("ok"), exitCode(checks) == 0);
    root.insert(QStringLiteral("checks"), array);
    return QString::fromUtf8(QJsonDocument(root).toJson(QJsonDocument::Indented));
}

int runDoctorMode(int argc, char** argv, bool json) {
    QCoreApplication app(argc, argv);
    installTranslations();
    QList<DoctorCheck> checks = Doctor::bluetoothChecks(probeBluetooth());
    // rfkill goes right after the power check, the filter after it.
    const QString sysfs = qEnvironmentVariableIsEmpty("LUMERIX_SYSFS")
                              ? QStringLiteral("/sys")
                              : qEnvironmentVariable("LUMERIX_SYSFS");
    checks.insert(checks.size() - 1, Doctor::rfkillCheck(sysfs));

    // No session bus is started for the occasion (libdbus would launch one for a display).
    const bool sessionConfigured =
        !qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS") ||
        QFileInfo::exists(qEnvironmentVariable("XDG_RUNTIME_DIR") + QLatin1String("/bus"));
    QDBusConnection session =
        sessionConfigured ? QDBusConnection::sessionBus() : QDBusConnection(QStringLiteral("no session bus"));
    // The tray's own rule: a watcher counts once a host has registered with it.
    const bool sni = nameOwned(session, QStringLiteral("org.kde.StatusNotifierWatcher"), false) &&
                     TrayHost::statusNotifierHostRegistered();
    checks << Doctor::trayHostCheck(sni, sni ? std::nullopt : probeXEmbedTray());
    checks << Doctor::notificationCheck(
        nameOwned(session, QStringLiteral("org.freedesktop.Notifications"), true));
    checks << Doctor::senderCheck(desktopEntryPath(QLatin1String(AppDelegate::kSenderBundleIdentifier)),
                                  processes(Doctor::kSenderProcess, false));
    QString problem;
    const PortState port = probePort(kSenderCommandPort, &problem);
    checks << Doctor::portCheck(kSenderCommandPort, port, problem, processes("lumerix", true));
    const QString support = PathManager::GetApplicationSupportPath().value_or(QString());
    checks << Doctor::referenceTableCheck(
        ReferenceTableLocation::savedTable(support),
        ReferenceTableLocation::defaultFolder(false, PathManager::GetResourcePath()) + QLatin1Char('/') +
            QLatin1String(AppDelegate::kDefaultReferenceTableFileName));

    const QString out = json ? Doctor::json(checks) : Doctor::text(checks);
    std::fputs(out.toUtf8().constData(), stdout);
    std::fflush(stdout);
    return Doctor::exitCode(checks);
}

}  // namespace lumerix
