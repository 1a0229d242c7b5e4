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
        std::optional<bool> delivered;  // the delivery's outcome, reported from another thread
        const char* summary;            // null: no notification
        const char* bodyPart;
    };
    const Case cases[] = {
        {"delivered", 1, true, 0, true, nullptr, nullptr},
        {"delivery failed", 1, true, 0, false, "Could not reach Sharvane", "127.0.0.1:19314"},
        {"launched", 0, true, 0, std::nullopt, "Starting Sharvane\u2026", "Boardroom"},
        {"launcher failed", 0, true, 256, std::nullopt, "Sharvane could not be started", "Boardroom"},
        {"not installed", 0, false, 256, std::nullopt, "Sharvane is not installed", "Boardroom"},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        ShellRig rig;
        rig.senderProcesses = k.senderProcesses;
        rig.senderInstalled = k.installed;
        rig.launcherStatus = k.launcherStatus;
        AppDelegate& shell = rig.launch();
        rig.discover({kUuid, -57, QStringLiteral("Boardroom")});
        shell.DeviceConnectAction(shell.menuList().at(0));

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
    }
}

TEST(ShellNotifications, AFailureReportedAfterTheShellIsGoneIsDropped) {
    ShellRig rig;
    rig.senderProcesses = 1;
    AppDelegate& shell = rig.launch();
    rig.discover({kUuid, -57, QStringLiteral("Boardroom")});
    shell.DeviceConnectAction(shell.menuList().at(0));
    ASSERT_EQ(rig.deliveries.size(), 1u);
    rig.shell.reset();
    rig.deliveries[0](false);
    rig.mainQueue.runUntilIdle();
    EXPECT_TRUE(rig.notifier->shown.empty());
}

TEST(ShellNotifications, AMissingTrayIsToldOnceAtLaunch) {
    for (const bool tray : {true, false}) {
        SCOPED_TRACE(tray);
        ShellRig rig;
        rig.statusBar->trayAvailable = tray;
        rig.launch();
        rig.time->advance(30000.0);  // rebuilds and aging add nothing
        ASSERT_EQ(rig.notifier->shown.size(), tray ? 0u : 1u);
        if (!tray) {
            const QString& body = rig.notifier->shown[0].body;
            EXPECT_TRUE(body.contains(QStringLiteral("AppIndicator")));
            // Notification servers cut long summaries; the body carries the details.
            EXPECT_LE(rig.notifier->shown[0].summary.size(), 40);
            EXPECT_TRUE(body.contains(QStringLiteral("lumerix --scan")));
        }
        // The item exists either way; it is shown once a tray host comes up.
        EXPECT_EQ(rig.statusBar->item->target, rig.shell.get());
    }
}

}  // namespace
}  // namespace lumerix
