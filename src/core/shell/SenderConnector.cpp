#include "shell/SenderConnector.h"

#include <QCoreApplication>

#include "log/Log.h"
#include "sender/MainController.h"

namespace lumerix {

namespace {

// The receiver's name for a notification, as the menu shows it.
QString receiverLabel(const ConnectionInfo& info) {
    const auto name = info.constFind(kKeyDeviceName);
    if (name != info.constEnd() && !name->isEmpty()) return *name;
    const auto ip = info.constFind(kKeyIP);
    if (ip != info.constEnd() && !ip->isEmpty()) return *ip;
    return QCoreApplication::translate("AppDelegate", "the receiver");
}

}  // namespace

SenderConnector::ConnectOutcome SenderConnector::connect(const ReceiverDictionary& receiver) {
    QString label = receiver.value(kKeyDevice);
    if (label.isEmpty()) label = receiver.value(kKeyIP);
    if (label.isEmpty()) label = QCoreApplication::translate("AppDelegate", "the receiver");
    int launchStatus = 0;
    const ConnectOutcome outcome =
        connect(receiver, env_.launcher, env_.processLookup, env_.peers.self, env_.delivery, slot_,
                &launchStatus, failureReporter(label, receiver));
    if (outcome == ConnectOutcome::Launched) reportLaunch(label, launchStatus, receiver);
    return outcome;
}

SenderConnector::ConnectOutcome SenderConnector::connect(const ReceiverDictionary& receiver,
                                                         const Launcher& launcher,
                                                         const ProcessLookup& processLookup, uint32_t userId,
                                                         const SenderDelivery& delivery,
                                                         PendingConnectionSlot& slot, int* launchStatus,
                                                         DeliveryDone done) {
    ConnectionInfo info;
    if (auto it = receiver.constFind(kKeyIP); it != receiver.constEnd()) info.insert(kKeyIP, *it);
    if (auto it = receiver.constFind(kKeyLoginCode); it != receiver.constEnd())
        info.insert(kKeyLoginCode, *it);
    if (auto it = receiver.constFind(kKeyDevice); it != receiver.constEnd()) {
        info.insert(kKeyDeviceName, *it);
        info.insert(kKeyWiFiSSID, *it);
    }
    if (auto it = receiver.constFind(kKeyWiFiKey); it != receiver.constEnd()) info.insert(kKeyWiFiKey, *it);

    int32_t pids[kProcessIdCapacity] = {};
    uint32_t count = 0;
    int error = 0;
    // Only our own sender counts: another user's process of that name is not one to hand a login
    // code to (the delivery checks the port's owner as well).
    if (processLookup) processLookup(kSenderProcessName, userId, pids, kProcessIdCapacity, &count, &error);

    if (count == 0) {
        // The sender asks for the receiver on the command listener once it is up. Parked before
        // the launch so that a sender quicker than the launcher's return still finds it.
        slot.park(std::move(info));
        const int status = launcher ? launcher(QByteArray(kSenderBundleIdentifier)) : -1;
        if (launchStatus) *launchStatus = status;
        return ConnectOutcome::Launched;
    }
    return deliverFrame(info, delivery, std::move(done)) ? ConnectOutcome::Sent : ConnectOutcome::NotSent;
}

void SenderConnector::resend(const ConnectionInfo& info) {
    deliverFrame(info, env_.delivery, failureReporter(receiverLabel(info)));
}

DeliveryDone SenderConnector::failureReporter(QString label, std::optional<ReceiverDictionary> receiver) {
    return [this, queue = env_.mainQueue, alive = std::weak_ptr<bool>(alive_), label = std::move(label),
            receiver = std::move(receiver)](DeliveryOutcome outcome) {
        if (outcome == DeliveryOutcome::Delivered || !queue) return;
        queue->async([this, alive, label, receiver, outcome] {
            if (alive.lock()) reportDeliveryFailure(label, outcome, receiver);
        });
    };
}

bool SenderConnector::deliverFrame(const ConnectionInfo& info, const SenderDelivery& delivery,
                                   DeliveryDone done) {
    uint8_t buffer[kFrameBufferSize] = {};
    const uint64_t length = MainController::GeneralPacket(buffer, kFrameBufferSize, info);
    if (length == 0) {
        Log::write(
            QStringLiteral("DeviceConnectAction: the receiver's details do not fit a frame; nothing sent"));
        return false;
    }
    if (!delivery) return false;
    delivery(QByteArray(reinterpret_cast<const char*>(buffer), static_cast<qsizetype>(length)),
             std::move(done));
    return true;
}

void SenderConnector::notify(QString summary, QString body, std::vector<NotificationAction> actions) {
    if (env_.notifier) env_.notifier->notify({std::move(summary), std::move(body), std::move(actions)});
}

std::vector<NotificationAction> SenderConnector::failureActions(
    const std::optional<ReceiverDictionary>& receiver) {
    std::vector<NotificationAction> actions;
    // The button may be pressed long after this shell is gone.
    if (receiver) {
        actions.push_back(
            {QStringLiteral("try-again"), QCoreApplication::translate("AppDelegate", "Try again"),
             [this, alive = std::weak_ptr<bool>(alive_), dictionary = *receiver] {
                 if (!alive.lock()) return;
                 Log::write(QStringLiteral("DeviceConnectAction: trying again from a notification"));
                 connect(dictionary);
             }});
    }
    if (env_.troubleshoot) {
        actions.push_back({QStringLiteral("troubleshoot"),
                           QCoreApplication::translate("AppDelegate", "Troubleshoot"), env_.troubleshoot});
    }
    return actions;
}

void SenderConnector::reportLaunch(const QString& receiver, int launcherStatus,
                                   const ReceiverDictionary& dictionary) {
    const QString sender = QLatin1String(kSenderDisplayName);
    if (!env_.senderInstalled()) {
        notify(QCoreApplication::translate("AppDelegate", "%1 is not installed").arg(sender),
               QCoreApplication::translate("AppDelegate", "Install %1 to share your screen with %2.")
                   .arg(sender, receiver));
    } else if (launcherStatus != 0) {
        Log::logf("DeviceConnectAction: the launcher ended with status %d", launcherStatus);
        notify(QCoreApplication::translate("AppDelegate", "%1 could not be started").arg(sender),
               QCoreApplication::translate("AppDelegate", "Start %1 yourself, then choose %2 again.")
                   .arg(sender, receiver),
               failureActions(dictionary));
    } else {
        notify(QCoreApplication::translate("AppDelegate", "Starting %1").arg(sender) + QChar(0x2026),
               QCoreApplication::translate("AppDelegate", "%1 connects to %2 as soon as it is up.")
                   .arg(sender, receiver));
    }
}

void SenderConnector::reportDeliveryFailure(const QString& receiver, DeliveryOutcome outcome,
                                            const std::optional<ReceiverDictionary>& dictionary) {
    const QString sender = QLatin1String(kSenderDisplayName);
    if (outcome == DeliveryOutcome::ForeignListener) {
        Log::logf(
            "DeviceConnectAction: port %u is held by another user's program; the connection details "
            "were not sent",
            static_cast<unsigned>(kSenderDataPort));
        notify(
            QCoreApplication::translate("AppDelegate", "%1 port held by another user").arg(sender),
            QCoreApplication::translate("AppDelegate",
                                        "The program listening on 127.0.0.1:%1 is not your %2, so %3 and its "
                                        "login code were not sent. Quit the other program or ask an "
                                        "administrator, then start %2 and choose %3 again.")
                .arg(QString::number(kSenderDataPort), sender, receiver));
        return;
    }
    Log::logf("DeviceConnectAction: %s did not take the connection details on port %u",
              qUtf8Printable(sender), static_cast<unsigned>(kSenderDataPort));
    notify(QCoreApplication::translate("AppDelegate", "Could not reach %1").arg(sender),
           QCoreApplication::translate("AppDelegate",
                                       "%1 did not take %2: nothing answered on 127.0.0.1:%3. Restart %1 and "
                                       "choose %2 again.")
               .arg(sender, receiver, QString::number(kSenderDataPort)),
           failureActions(dictionary));
}

}  // namespace lumerix
