#include <gtest/gtest.h>

#include <thread>

#include "ShellFakes.h"

namespace lumerix {
namespace {

using shelltest::ShellRig;

const QString kUuid = QStringLiteral("00000000-0000-0000-0000-000000000001");

// One choice of the receiver "Boardroom" in each state of the sender.
TEST(ShellNotifications, EachSenderOutcomeNotifiesOnceWithTheReceiversName) {
    struct Case {
        const char* name;
        uint32_t senderProcesses;
        bool installed;
        int launcherStatus;
        std::optional<DeliveryOutcome> delivered;  // the delivery's outcome, reported from another thread
        const char* summary;                       // null: no notification
        const char* bodyPart;
        QStringList buttons;
    };
    const QStringList failed = {QStringLiteral("Try again"), QStringLiteral("Troubleshoot")};
    const DeliveryOutcome foreign = DeliveryOutcome::ForeignListener;
    const char* notSent = "Boardroom and its login code were not sent";
    const Case cases[] = {
        {"delivered", 1, true, 0, DeliveryOutcome::Delivered, nullptr, nullptr, {}},
        {"delivery failed", 1, true, 0, DeliveryOutcome::Unreachable, "Could not reach Sharvane",
         "127.0.0.1:19314", failed},
        {"port held by another user", 1, true, 0, foreign, "Sharvane port held by another user", notSent, {}},
        {"launched", 0, true, 0, std::nullopt, "Starting Sharvane\u2026", "Boardroom", {}},
        {"launcher failed", 0, true, 256, std::nullopt, "Sharvane could not be started", "Boardroom", failed},
        {"not installed", 0, false, 256, std::nullopt, "Sharvane is not installed", "Boardroom", {}},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        ShellRig rig;
        rig.env.troubleshoot = [] {};
        rig.senderProcesses = k.senderProcesses;
        rig.senderInstalled = k.installed;
        rig.launcherStatus = k.launcherStatus;
        rig.env.peers.self = 1000;
        AppDelegate& shell = rig.launch();
        rig.discover({kUuid, -57, QStringLiteral("Boardroom")});
        shell.DeviceConnectAction(shell.menuList().at(0));
        EXPECT_EQ(rig.lookupUids, std::vector<uint32_t>{1000}) << "only our own sender is looked for";

        if (k.delivered) {
            ASSERT_EQ(rig.deliveries.size(), 1u);
            std::thread([&] { rig.deliveries[0](*k.delivered); }).join();
            EXPECT_TRUE(rig.notifier->shown.empty()) << "told on the main queue, not the delivery thread";
            rig.mainQueue.runUntilIdle();
        } else {
            EXPECT_EQ(rig.commands.size(), 1u) << "the launcher runs whatever the lookup says";
            EXPECT_TRUE(shell.dictTargetDevice().isPending());
        }
        if (!k.summary) {
            EXPECT_TRUE(rig.notifier->shown.empty());
            continue;
        }
        ASSERT_EQ(rig.notifier->shown.size(), 1u);
        EXPECT_EQ(rig.notifier->shown[0].summary, QString::fromUtf8(k.summary));
        EXPECT_TRUE(rig.notifier->shown[0].body.contains(QString::fromUtf8(k.bodyPart)))
            << rig.notifier->shown[0].body.toStdString();
        QStringList buttons;
        for (const NotificationAction& a : rig.notifier->shown[0].actions) buttons.append(a.label);
        EXPECT_EQ(buttons, k.buttons);
    }
}

const NotificationAction* button(const Notification& n, const char* label) {
    for (const NotificationAction& a : n.actions) {
        if (a.label == QLatin1String(label)) return &a;
    }
    return nullptr;
}

// "Try again" connects the same receiver again, even after the list moved on; "Troubleshoot"
// runs what the desktop gave; a press after the shell is gone does nothing.
TEST(ShellNotifications, FailureButtonsActOnTheFailedReceiver) {
    ShellRig rig;
    int troubleshooting = 0;
    rig.env.troubleshoot = [&troubleshooting] { ++troubleshooting; };
    rig.senderProcesses = 1;
    AppDelegate& shell = rig.launch();
    rig.discover({kUuid, -57, QStringLiteral("Boardroom"), QStringLiteral("10.1.1.1")});
    shell.DeviceConnectAction(shell.menuList().at(0));
    rig.discover({QStringLiteral("00000000-0000-0000-0000-000000000002"), -30, QStringLiteral("Lab")});
    ASSERT_EQ(rig.deliveries.size(), 1u);
    rig.deliveries[0](DeliveryOutcome::Unreachable);
    rig.mainQueue.runUntilIdle();
    ASSERT_EQ(rig.notifier->shown.size(), 1u);
    const Notification failure = rig.notifier->shown[0];
    ASSERT_NE(button(failure, "Try again"), nullptr);
    ASSERT_NE(button(failure, "Troubleshoot"), nullptr);

    button(failure, "Try again")->invoke();
    ASSERT_EQ(rig.frames.size(), 2u);
    EXPECT_EQ(rig.frames[1], rig.frames[0]);
    button(failure, "Troubleshoot")->invoke();
    EXPECT_EQ(troubleshooting, 1);

    // A launch failure retries by launching again.
    rig.senderProcesses = 0;
    rig.launcherStatus = 256;
    button(failure, "Try again")->invoke();
    EXPECT_EQ(rig.commands.size(), 1u);
    ASSERT_EQ(rig.notifier->shown.size(), 2u);
    rig.launcherStatus = 0;
    button(rig.notifier->shown[1], "Try again")->invoke();
    EXPECT_EQ(rig.commands.size(), 2u);

    // Once the shell is gone, a press and a late failure report do nothing.
    const size_t told = rig.notifier->shown.size();
    rig.shell.reset();
    button(failure, "Try again")->invoke();
    rig.deliveries[1](DeliveryOutcome::Unreachable);
    rig.mainQueue.runUntilIdle();
    EXPECT_EQ(rig.frames.size(), 2u);
    EXPECT_EQ(rig.commands.size(), 2u);
    EXPECT_EQ(rig.notifier->shown.size(), told);
}

}  // namespace
}  // namespace lumerix
