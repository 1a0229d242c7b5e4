#include "app/ReceiverCommands.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusMetaType>
#include <QDBusReply>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QTimer>
#include <cstdio>
#include <cstdlib>

#include "app/CommandLine.h"
#include "app/HeadlessSession.h"
#include "app/ReceiverService.h"
#include "app/Translations.h"
#include "log/Log.h"
#include "platform/linux/DesktopEntry.h"
#include "platform/linux/GetPID.h"
#include "platform/linux/LoopbackSockets.h"
#include "platform/linux/SenderLauncher.h"
#include "platform/linux/SyslogSink.h"
#include "receiver/SignalStrength.h"
#include "sender/CommandListener.h"
#include "sender/MainController.h"
#include "shell/AppDelegate.h"
#include "shell/ReceiverChoice.h"
#include "shell/ReceiverRow.h"
#include "text/DisplayText.h"

namespace lumerix {
namespace {

constexpr double kDefaultTimeoutSeconds = 5.0;
constexpr int kSenderWaitMs = 30000;
constexpr int kSlotPollMs = 50;
// Exit status of --connect beyond 0 (handed over), 1 (other failures), 2 (no Bluetooth) and 64.
constexpr int kExitNotFound = 3;       // no such receiver nearby
constexpr int kExitSenderMissing = 4;  // the sender application is not installed
constexpr int kExitSenderSilent = 5;   // the sender did not take the receiver

// Neither installed (no desktop entry) nor running: nothing could take the receiver.
bool senderMissing() {
    if (!desktopEntryPath(QLatin1String(AppDelegate::kSenderBundleIdentifier)).isEmpty()) return false;
    int32_t pids[1];
    uint32_t count = 0;
    GetAllPIDsForProcessName(AppDelegate::kSenderProcessName, 0, pids, 1, &count, nullptr);
    return count == 0;
}

int reportSenderMissing() {
    std::fputs(
        (QStringLiteral("lumerix: ") +
         QCoreApplication::translate("ReceiverCommands", "The sender application (%1) is not installed.")
             .arg(QLatin1String(AppDelegate::kSenderDisplayName)) +
         QLatin1Char('\n') +
         QCoreApplication::translate("ReceiverCommands", "Run \"lumerix --doctor\" to see what is missing.") +
         QLatin1Char('\n'))
            .toUtf8()
            .constData(),
        stderr);
    return kExitSenderMissing;
}
constexpr int kDBusTimeoutMs = 10000;

void print(FILE* stream, const QString& text) {
    std::fputs(text.toUtf8().constData(), stream);
    std::fflush(stream);
}

// Receivers as the D-Bus service lists them, printed as JSON or as a table.
void printReceivers(const QList<ReceiverRow>& receivers, bool json) {
    if (json) {
        QJsonArray array;
        for (const ReceiverRow& r : receivers) array.append(QJsonObject::fromVariantMap(r.toMap()));
        print(stdout, QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Indented)));
        return;
    }
    const int width = ReceiverRow::tableNameWidth(receivers);
    QString out = ReceiverRow::tableHeader(width) + QLatin1Char('\n');
    for (const ReceiverRow& r : receivers) out += r.tableLine(width) + QLatin1Char('\n');
    print(stdout, out);
}

// The running tray's service, or null when no instance holds the name.
std::unique_ptr<QDBusInterface> runningInstance() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface()) return nullptr;
    if (!bus.interface()->isServiceRegistered(QLatin1String(ReceiverService::kServiceName))) return nullptr;
    qDBusRegisterMetaType<QList<QVariantMap>>();
    auto iface = std::make_unique<QDBusInterface>(QLatin1String(ReceiverService::kServiceName),
                                                  QLatin1String(ReceiverService::kObjectPath),
                                                  QLatin1String(ReceiverService::kInterfaceName), bus);
    iface->setTimeout(kDBusTimeoutMs);
    return iface;
}

int listThroughInstance(QDBusInterface& iface, const CommandLine& options) {
    const QDBusReply<QList<QVariantMap>> reply = iface.call(QStringLiteral("Receivers"));
    if (!reply.isValid()) {
        print(stderr,
              QStringLiteral("lumerix: ") +
                  QCoreApplication::translate("ReceiverCommands", "The running Lumerix did not answer: %1")
                      .arg(reply.error().message()) +
                  QLatin1Char('\n'));
        return 1;
    }
    QList<ReceiverRow> receivers;
    for (const QVariantMap& map : reply.value()) receivers.append(ReceiverRow::fromMap(map));
    printReceivers(receivers, options.json);
    return 0;
}

int connectThroughInstance(QDBusInterface& iface, const CommandLine& options) {
    const bool nearest = options.receiver.compare(QLatin1String(kNearestReceiver), Qt::CaseInsensitive) == 0;
    bool found = false;
    QString error;
    if (nearest) {
        const QDBusReply<QString> reply = iface.call(QStringLiteral("ConnectNearest"));
        found = reply.isValid() && !reply.value().isEmpty();
        if (!reply.isValid()) error = reply.error().message();
    } else {
        const QDBusReply<bool> reply = iface.call(QStringLiteral("Connect"), options.receiver);
        found = reply.isValid() && reply.value();
        if (!reply.isValid()) error = reply.error().message();
    }
    if (!error.isEmpty()) {
        print(stderr,
              QStringLiteral("lumerix: ") +
                  QCoreApplication::translate("ReceiverCommands", "The running Lumerix did not answer: %1")
                      .arg(error) +
                  QLatin1Char('\n'));
        return 1;
    }
    if (!found) {
        print(stderr, QStringLiteral("lumerix: ") +
                          QCoreApplication::translate("ReceiverCommands", "No receiver \"%1\" nearby.")
                              .arg(options.receiver) +
                          QLatin1Char('\n'));
        return kExitNotFound;
    }
    return 0;
}

// A scan of its own, for when no tray runs.
class StandaloneSession final : public HeadlessSession {
public:
    explicit StandaloneSession(const CommandLine& options)
        : HeadlessSession(options.demo), options_(options) {}

    int run() {
        const double timeoutMs = options_.timeoutSeconds.value_or(kDefaultTimeoutSeconds) * 1000.0;
        QTimer::singleShot(static_cast<int>(timeoutMs), QCoreApplication::instance(),
                           [this] { scanEnded(); });
        // The overall deadline leaves room for a launched sender to ask.
        return exec(timeoutMs + kSenderWaitMs + 1000);
    }

private:
    bool connecting() const { return options_.mode == CommandLine::Mode::Connect; }
    bool nearest() const {
        return options_.receiver.compare(QLatin1String(kNearestReceiver), Qt::CaseInsensitive) == 0;
    }

    void itemSeen(const QVLumerixItemRef& item) override { note(item); }
    void itemStatus(const QVLumerixItemRef& item, int) override { note(item); }

    void note(const QVLumerixItemRef& item) {
        if (!item->hasResolved() || !item->peripheral() || decided_) return;
        items_[item->peripheral()->identifier()] = item;
        // A name or identifier is connected as soon as it is heard; nearest needs the whole scan.
        if (connecting() && !nearest() && choose()) decide();
    }

    QList<ReceiverRow> strongestFirst() const {
        QList<ReceiverRow> rows;
        for (const QVLumerixItemRef& item : items_) rows.append(ReceiverRow::fromItem(*item));
        sortStrongestFirst(rows, [](const ReceiverRow& r) { return r.rssi; });
        return rows;
    }

    std::optional<ReceiverRow> choose() {
        const QList<ReceiverRow> rows = strongestFirst();
        QString closest;
        if (handler().hasClosestItem()) {
            if (QVLumerixItemRef peer = handler().closestPeer(); peer && peer->peripheral())
                closest = peer->peripheral()->identifier();
        }
        const auto index = chooseReceiver(rows, options_.receiver, closest);
        if (!index) return std::nullopt;
        return rows[*index];
    }

    void scanEnded() {
        if (decided_) return;
        if (!scanning()) return;  // Bluetooth never came up: the session reports that
        if (!connecting()) {
            decided_ = true;
            handler().scanForLumerixService(false);
            printReceivers(strongestFirst(), options_.json);
            finish(0);
            return;
        }
        decide();
    }

    void decide() {
        decided_ = true;
        handler().scanForLumerixService(false);
        const std::optional<ReceiverRow> chosen = choose();
        if (!chosen) {
            print(stderr, QStringLiteral("lumerix: ") +
                              QCoreApplication::translate("ReceiverCommands", "No receiver \"%1\" nearby.")
                                  .arg(options_.receiver) +
                              QLatin1Char('\n'));
            finish(kExitNotFound);
            return;
        }
        const ReceiverDictionary dict = chosen->dictionary();
        // Quoted in the messages below, on a terminal.
        const QString name = DisplayText::inert(chosen->nameText());

        // Listening before the launch: a quick sender must find the listener up.
        const PeerCheck peers = makeLoopbackPeerCheck();
        listener_ = std::make_unique<CommandListener>(slot_, closing_, kSenderCommandPort, peers);
        const Launcher launcher = [this](const QByteArray& bundleIdentifier) {
            if (!listener_) return 1;
            listener_->start();
            return SenderLauncher::launchApplication(bundleIdentifier);
        };
        DeliveryOutcome delivered = DeliveryOutcome::Unreachable;
        // Sent from this thread: the command has nothing else to do meanwhile.
        const SenderDelivery delivery = [&delivered, &peers](const QByteArray& frame,
                                                             const DeliveryDone& done) {
            delivered =
                MainController::SendDataToOndrel(reinterpret_cast<const uint8_t*>(frame.constData()),
                                                 static_cast<uint64_t>(frame.size()), kSenderDataPort, peers);
            if (done) done(delivered);
        };
        const auto outcome = AppDelegate::ConnectReceiver(dict, launcher, &GetAllPIDsForProcessName,
                                                          peers.self, delivery, slot_);
        if (outcome == AppDelegate::ConnectOutcome::Sent && delivered == DeliveryOutcome::ForeignListener) {
            print(stderr, QStringLiteral("lumerix: ") +
                              QCoreApplication::translate(
                                  "ReceiverCommands",
                                  "Port %1 is held by another user's program; \"%2\" was not sent.")
                                  .arg(QString::number(kSenderDataPort), name) +
                              QLatin1Char('\n'));
            finish(kExitSenderSilent);
            return;
        }
        if (outcome == AppDelegate::ConnectOutcome::Sent && delivered != DeliveryOutcome::Delivered) {
            print(stderr, QStringLiteral("lumerix: ") +
                              QCoreApplication::translate("ReceiverCommands",
                                                          "The sender did not take \"%1\" on port %2.")
                                  .arg(name, QString::number(kSenderDataPort)) +
                              QLatin1Char('\n'));
            finish(kExitSenderSilent);
            return;
        }
        if (outcome == AppDelegate::ConnectOutcome::Sent) {
            print(stdout,
                  QCoreApplication::translate("ReceiverCommands", "Sent \"%1\" to the sender.").arg(name) +
                      QLatin1Char('\n'));
            finish(0);
            return;
        }
        if (outcome == AppDelegate::ConnectOutcome::NotSent) {
            print(stderr, QStringLiteral("lumerix: ") +
                              QCoreApplication::translate("ReceiverCommands",
                                                          "The details of \"%1\" do not fit a frame.")
                                  .arg(name) +
                              QLatin1Char('\n'));
            finish(1);
            return;
        }
        if (listener_->result() == std::optional<bool>(false)) {
            print(stderr, QStringLiteral("lumerix: ") +
                              QCoreApplication::translate("ReceiverCommands",
                                                          "Cannot listen for the sender on port %1.")
                                  .arg(kSenderCommandPort) +
                              QLatin1Char('\n'));
            finish(1);
            return;
        }
        print(stdout, QCoreApplication::translate("ReceiverCommands",
                                                  "Launched the sender for \"%1\"; waiting for it to ask.")
                              .arg(name) +
                          QLatin1Char('\n'));
        waitingSinceMs_ = 0;
        auto* poll = new QTimer(QCoreApplication::instance());
        QObject::connect(poll, &QTimer::timeout, poll, [this, poll, name] {
            waitingSinceMs_ += kSlotPollMs;
            if (!slot_.isPending()) {
                poll->deleteLater();
                listener_->stop();
                print(
                    stdout,
                    QCoreApplication::translate("ReceiverCommands", "The sender fetched \"%1\".").arg(name) +
                        QLatin1Char('\n'));
                finish(0);
            } else if (waitingSinceMs_ >= kSenderWaitMs) {
                poll->deleteLater();
                print(stderr, QStringLiteral("lumerix: ") +
                                  QCoreApplication::translate(
                                      "ReceiverCommands", "The sender did not ask for \"%1\" within %2 s.")
                                      .arg(name)
                                      .arg(kSenderWaitMs / 1000) +
                                  QLatin1Char('\n'));
                finish(kExitSenderSilent);
            }
        });
        poll->start(kSlotPollMs);
    }

    int deadlineReached() override { return kExitSenderSilent; }

    const CommandLine& options_;
    QMap<QString, QVLumerixItemRef> items_;
    bool decided_ = false;
    PendingConnectionSlot slot_;
    std::atomic<bool> closing_{false};
    std::unique_ptr<CommandListener> listener_;
    int waitingSinceMs_ = 0;
};

int runReceiverCommand(int argc, char** argv, const CommandLine& options) {
    QCoreApplication app(argc, argv);
    installTranslations();
    installSystemLogSink();
    if (options.mode == CommandLine::Mode::Connect && senderMissing()) return reportSenderMissing();
    if (auto iface = runningInstance()) {
        return options.mode == CommandLine::Mode::List ? listThroughInstance(*iface, options)
                                                       : connectThroughInstance(*iface, options);
    }
    StandaloneSession session(options);
    return session.run();
}

}  // namespace

int runListMode(int argc, char** argv, const CommandLine& options) {
    return runReceiverCommand(argc, argv, options);
}

int runConnectMode(int argc, char** argv, const CommandLine& options) {
    return runReceiverCommand(argc, argv, options);
}

}  // namespace lumerix
