#pragma once
// The sender link seen from the shell: a receiver's dictionary turned into connection details,
// handed to the running sender or parked for it while it is launched, and the user told when the
// sender is missing, could not be started or did not take the details. Runs on the main queue;
// delivery outcomes arrive from the delivery thread and are reported from the main queue.
#include <QString>
#include <memory>
#include <optional>
#include <vector>

#include "sender/CommandListener.h"
#include "sender/ConnectionInfo.h"
#include "shell/ShellPorts.h"

namespace lumerix {

class SenderConnector {
public:
    static constexpr const char* kSenderProcessName = "Sharvane";
    static constexpr const char* kSenderBundleIdentifier = "com.Sharvane.Ondrel";
    static constexpr const char* kSenderDisplayName = "Sharvane";
    static constexpr uint32_t kProcessIdCapacity = 3;

    enum class ConnectOutcome { Sent, Launched, NotSent };

    // env and slot must outlive the connector.
    SenderConnector(const ShellEnvironment& env, PendingConnectionSlot& slot) : env_(env), slot_(slot) {}
    SenderConnector(const SenderConnector&) = delete;
    SenderConnector& operator=(const SenderConnector&) = delete;

    // Sent to the running sender, or parked in `slot` and the sender launched. userId: whose
    // "Sharvane" processes count as the sender (0: anyone's). Nothing is reported to the user.
    static ConnectOutcome connect(const ReceiverDictionary& receiver, const Launcher& launcher,
                                  const ProcessLookup& processLookup, uint32_t userId,
                                  const SenderDelivery& delivery, PendingConnectionSlot& slot,
                                  int* launchStatus = nullptr, DeliveryDone done = nullptr);
    // The same with the shell's ports, telling the user what became of it.
    ConnectOutcome connect(const ReceiverDictionary& receiver);
    // Details the sender asked for again: sent, failures reported.
    void resend(const ConnectionInfo& info);

private:
    static bool deliverFrame(const ConnectionInfo& info, const SenderDelivery& delivery, DeliveryDone done);
    // Tells the user, from the main queue, when a frame did not reach the sender or was withheld.
    // receiver: what "Try again" connects again (none: no such button).
    DeliveryDone failureReporter(QString label, std::optional<ReceiverDictionary> receiver = std::nullopt);
    void notify(QString summary, QString body, std::vector<NotificationAction> actions = {});
    // "Try again" (for a receiver dictionary) and "Troubleshoot", for a notification of a failure.
    std::vector<NotificationAction> failureActions(const std::optional<ReceiverDictionary>& receiver);
    void reportLaunch(const QString& receiver, int launcherStatus, const ReceiverDictionary& dictionary);
    void reportDeliveryFailure(const QString& receiver, DeliveryOutcome outcome,
                               const std::optional<ReceiverDictionary>& dictionary);

    const ShellEnvironment& env_;
    PendingConnectionSlot& slot_;
    // Tasks and notification buttons outliving the connector hold it weakly.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace lumerix
