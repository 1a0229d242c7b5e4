#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <algorithm>
#include <functional>
#include <string>

#include "ShellFakes.h"
#include "log/Log.h"
#include "sender/LoopbackClient.h"
#include "sender/MainController.h"
#include "shell/ReferenceTable.h"

namespace lumerix {
namespace {

using shelltest::ReceiverSetup;
using shelltest::ShellRig;

const QString kBoardroom = QStringLiteral("Boardroom");
const QString kTraining = QStringLiteral("Training");

QString uuidFor(int n) {
    return QStringLiteral("00000000-0000-0000-0000-0000000000%1").arg(n, 2, 10, QLatin1Char('0'));
}

QByteArray tableXml(const QVariantList& table) {
    return ReferenceTable::xmlFromPropertyList(QVariant(table));
}

QVariantList twoReferenceEntries() {
    return {QVariantMap{{QStringLiteral("Device"), kBoardroom},
                        {QStringLiteral("IP"), QStringLiteral("192.168.1.2")}},
            QVariantMap{{QStringLiteral("Device"), kTraining}}};
}

void writeDefaultTable(ShellRig& rig, const QVariantList& table) {
    QFile f(rig.resources.filePath(QStringLiteral("DefaultReferenceTable.plist")));
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(tableXml(table));
}

QByteArray frameFor(const ConnectionInfo& info) {
    uint8_t buffer[kFrameBufferSize] = {};
    const uint64_t n = MainController::GeneralPacket(buffer, kFrameBufferSize, info);
    return QByteArray(reinterpret_cast<const char*>(buffer), static_cast<qsizetype>(n));
}

// With Bluetooth off a plain launch alerts once and ends; a login launch stays quiet and stays.
// Either way the launch runs every step.
TEST(AppDelegateLifecycle, LaunchRunsEveryStepWithOrWithoutBluetooth) {
    for (const bool quiet : {false, true}) {
        for (const bool bluetoothOn : {true, false}) {
            SCOPED_TRACE(testing::Message() << "quiet " << quiet << ", bluetooth " << bluetoothOn);
            ShellRig rig;
            rig.bluetoothOn = bluetoothOn;
            rig.env.quietLaunch = quiet;
            rig.statusBar->trayAvailable = false;  // no bubble at login either
            rig.env.listenerPort = 0;              // any free port
            writeDefaultTable(rig, twoReferenceEntries());
            AppDelegate& shell = rig.launch();
            const bool alerted = !bluetoothOn && !quiet;
            ASSERT_EQ(rig.application->alerts.size(), alerted ? 1u : 0u);
            if (alerted) {
                EXPECT_EQ(rig.application->alerts[0].messageText, QStringLiteral("Please turn on bluetooth"));
                EXPECT_EQ(rig.application->alerts[0].informativeText,
                          QStringLiteral("This application needs bluetooth access authority"));
            }
            EXPECT_EQ(rig.application->terminateCount, alerted ? 1 : 0);
            ASSERT_EQ(rig.notifier->shown.size(), quiet ? 0u : 1u) << "the no-tray notice";
            // Notification servers cut long summaries; the body carries the details.
            if (!quiet) {
                EXPECT_LE(rig.notifier->shown[0].summary.size(), 40);
            }
            EXPECT_EQ(rig.application->hideCount, 1);
            EXPECT_EQ(rig.statusBar->item->target, &shell);
            EXPECT_TRUE(rig.statusBar->item->image->isTemplate());
            EXPECT_EQ(shell.referenceTable(), twoReferenceEntries());
            ASSERT_EQ(rig.handlers.size(), 1u);
            EXPECT_EQ(rig.handlers[0]->calls, std::vector<bool>{true});
            EXPECT_EQ(rig.handlers[0]->delegate, &shell);
            EXPECT_EQ(rig.workspace->observers.count(&shell), 1u);
            const uint16_t port = shell.commandListener()->port();
            ASSERT_NE(port, 0) << "the listener is bound";
            EXPECT_EQ(testing_loopback::askListener(port, {0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x02, 0x03}),
                      testing_loopback::Bytes{0x00});
        }
    }
}

// The tooltip tells why nothing is listed: the state read at launch, then each report; receivers
// heard before the radio went stay listed under its state until they age out.
TEST(AppDelegateLifecycle, ToolTipNamesTheRadioState) {
    struct Case {
        const char* name;
        std::optional<int> atLaunch;
        std::vector<int> reports;
        bool receiver;
        QString expected;
        bool attention;  // the item's status asks for it
    };
    const QString a = QStringLiteral("\nA \u2014 \u221250 dBm");  // its age is left out below
    const QString gone = QStringLiteral("Lumerix\nBluetooth service (bluetoothd) is not running");
    const Case cases[] = {
        {"off at launch", 4, {}, false, QStringLiteral("Lumerix\nBluetooth is off"), true},
        {"no adapter", 2, {}, false, QStringLiteral("Lumerix\nNo Bluetooth adapter"), true},
        {"bluetoothd gone", 5, {0}, false, gone, true},
        {"access denied", 3, {}, false, QStringLiteral("Lumerix\nBluetooth access denied"), true},
        {"on, nothing heard", 5, {}, false, QStringLiteral("Lumerix\nSearching for receivers"), false},
        {"not known yet", std::nullopt, {}, false, QStringLiteral("Lumerix\nChecking Bluetooth"), false},
        {"off, then on", 4, {5}, false, QStringLiteral("Lumerix\nSearching for receivers"), false},
        {"receivers while on", 5, {}, true, QStringLiteral("Lumerix") + a, false},
        {"switched off with a receiver", 5, {4}, true, QStringLiteral("Lumerix\nBluetooth is off") + a, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ShellRig rig;
        rig.centralState = c.atLaunch;
        AppDelegate& shell = rig.launch();
        if (c.receiver) {
            rig.discover({uuidFor(1), -50, QStringLiteral("A")});
            rig.discover({uuidFor(2), -60, std::nullopt});  // left out, as in the menu
        }
        for (const int state : c.reports) shell.lumerixStateDidChange(state);
        rig.time->advance(1000);
        rig.time->runUntilIdle();
        ASSERT_FALSE(rig.statusBar->item->toolTips.empty());
        QString shown = rig.statusBar->item->toolTips.back();
        shown.remove(QRegularExpression(QStringLiteral(", \\d+ s ago")));
        EXPECT_EQ(shown, c.expected);
        EXPECT_EQ(rig.statusBar->item->attention, c.attention);
    }
}

TEST(AppDelegateLifecycle, SleepDropsTheHandlerAndWakeMakesAFreshOne) {
    ShellRig rig;
    AppDelegate& shell = rig.launch();
    rig.discover({uuidFor(1), -50, QStringLiteral("A")});

    shell.receiveSleepNote();
    EXPECT_EQ(rig.handlers[0]->calls, (std::vector<bool>{true, false}));
    EXPECT_EQ(rig.handlers[0]->delegate, nullptr);
    EXPECT_FALSE(rig.handlers[0]->alive);
    EXPECT_EQ(shell.lumerix(), nullptr);
    shell.receiveSleepNote();  // a second sleep has nothing to stop
    EXPECT_EQ(rig.handlers.size(), 1u);

    shell.receiveWakeNote();
    ASSERT_EQ(rig.handlers.size(), 2u);
    EXPECT_EQ(rig.handlers[1]->calls, std::vector<bool>{true});
    EXPECT_EQ(rig.handlers[1]->delegate, &shell);
    // The list survives sleep; aging clears it.
    EXPECT_EQ(shell.discoveredDeviceAry().size(), 1u);

    shell.receiveWakeNote();  // wake without sleep: same handler, scanning asked again
    EXPECT_EQ(rig.handlers.size(), 2u);
    EXPECT_EQ(rig.handlers[1]->calls, (std::vector<bool>{true, true}));
}

// A failed start is retried after 10 ms, up to 50 times. The central's state arrives on the scan
// queue; the shell acts on the main queue. Power back on while awake and not scanning starts
// scanning again, with the launch's retries.
TEST(AppDelegateLifecycle, ScanningStartsAgainWhenBluetoothIsBackOn) {
    struct Case {
        const char* name;
        int scanFailures;  // of the fake handler, counted from launch
        std::vector<const char*> events;
        size_t handlers;
        size_t starts;  // scanForLumerixService(true) calls on the last handler
        int pauses;
    };
    const Case cases[] = {
        {"started at once", 0, {}, 1, 1, 0},
        {"three failed starts", 3, {}, 1, 4, 3},
        {"started at the last try", 50, {}, 1, 51, 50},
        {"never starts: the handler stays registered", -1, {}, 1, 51, 50},
        {"off and on again", 0, {"4", "5"}, 1, 2, 0},
        {"adapter gone, bluetoothd gone, back", 0, {"2", "0", "5"}, 1, 2, 0},
        {"on while scanning: nothing", 0, {"5"}, 1, 1, 0},
        {"two reports of on after one off: one start", 0, {"4", "5", "5"}, 1, 2, 0},
        {"each off-on pair restarts", 0, {"4", "5", "4", "5"}, 1, 3, 0},
        {"off at launch, then on", 51, {"5"}, 1, 52, 50},
        {"the restart retries as the launch does", 53, {"4", "5"}, 1, 54, 52},
        {"asleep: nothing until wake", 0, {"sleep", "4", "5"}, 1, 1, 0},
        {"after wake, a power cycle restarts the new handler", 0, {"sleep", "wake", "4", "5"}, 2, 2, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ShellRig rig;
        rig.scanFailures = c.scanFailures;
        AppDelegate& shell = rig.launch();
        for (const std::string event : c.events) {
            if (event == "sleep") {
                shell.receiveSleepNote();
            } else if (event == "wake") {
                shell.receiveWakeNote();
            } else {
                const size_t before = rig.handlers.back()->calls.size();
                shell.lumerixStateDidChange(std::stoi(event));
                EXPECT_EQ(rig.handlers.back()->calls.size(), before) << "acted on the caller's thread";
                rig.time->runUntilIdle();
            }
        }
        ASSERT_EQ(rig.handlers.size(), c.handlers);
        const auto& calls = rig.handlers.back()->calls;
        EXPECT_EQ(static_cast<size_t>(std::count(calls.begin(), calls.end(), true)), c.starts);
        EXPECT_EQ(rig.pauses, c.pauses);
        if (c.events.empty()) {
            EXPECT_EQ(rig.handlers[0]->delegate, &shell) << "registered even when scanning never started";
        }
    }
}

TEST(AppDelegateLifecycle, StateReportLeftOnTheMainQueueOutlivesTheShell) {
    ShellRig rig;
    rig.launch().lumerixStateDidChange(4);
    rig.shell->lumerixStateDidChange(5);
    rig.shell.reset();
    rig.time->runUntilIdle();  // the sanitizer builds catch a use after free here
    EXPECT_EQ(rig.handlers[0]->calls, std::vector<bool>{true});
}

TEST(AppDelegateMenu, LayoutAndIcon) {
    const std::optional<QString> none;
    struct Case {
        const char* name;
        QVariantList references;
        std::vector<std::optional<QString>> receivers;  // names, strongest first
        QStringList rows;
        bool normalIcon;
    };
    const QString sep = QStringLiteral("---"), about = QStringLiteral("About"), exit = QStringLiteral("Exit");
    const QString a = QStringLiteral("A"), b = QStringLiteral("B");
    const QVariantList refs = twoReferenceEntries();
    const QString& room = kBoardroom;
    const QString& training = kTraining;
    const Case cases[] = {
        {"empty", {}, {}, {sep, about, exit}, false},
        {"references only", refs, {}, {room, training, sep, about, exit}, false},
        {"one receiver", {}, {a}, {a, sep, about, exit}, true},
        {"receiver above references", refs, {a}, {a, room, training, sep, about, exit}, true},
        {"unnamed leaves its gap", {}, {none, b}, {sep, b, about, exit}, true},
        {"unnamed gap among references", refs, {none, b}, {room, b, training, sep, about, exit}, true},
    };
    for (const Case& c : cases) {
        ShellRig rig;
        writeDefaultTable(rig, c.references);
        AppDelegate& shell = rig.launch();
        double rssi = -40;
        for (const auto& name : c.receivers) rig.discover({uuidFor(static_cast<int>(-rssi)), rssi--, name});
        EXPECT_EQ(rig.menuRows(), c.rows) << c.name;
        ASSERT_TRUE(rig.statusBar->item->image) << c.name;
        EXPECT_EQ(rig.statusBar->item->image->name(),
                  c.normalIcon ? QStringLiteral("Normal_Icon") : QStringLiteral("Normal_Disable_Icon"))
            << c.name;
        EXPECT_EQ(shell.discoveredDevice().size(), static_cast<qsizetype>(c.receivers.size())) << c.name;
    }
}

TEST(AppDelegateMenu, MergeReplacesBySameIdentifierAndKeepsStrongestFirst) {
    ShellRig rig;
    AppDelegate& shell = rig.launch();
    rig.discover({uuidFor(1), -60, QStringLiteral("A")});
    rig.discover({uuidFor(2), -70, QStringLiteral("B")});
    auto newer = rig.discover({uuidFor(2), -50, QStringLiteral("B2")});  // a new object for the same receiver
    ASSERT_EQ(shell.discoveredDeviceAry().size(), 2u);
    EXPECT_EQ(shell.discoveredDeviceAry()[0], newer);
    EXPECT_EQ(rig.menuRows().mid(0, 2), (QStringList{QStringLiteral("B2"), QStringLiteral("A")}));
    EXPECT_EQ(shell.discoveredDevice()[0].value(QStringLiteral("Device")), QStringLiteral("B2"));
}

TEST(AppDelegateMenu, AgingBoundaryIsStrictlyMoreThanTwentySeconds) {
    struct Case {
        double ageAtTickMs;
        bool kept;
    };
    const Case cases[] = {{20000.0, true}, {20000.001, false}};
    for (const Case& c : cases) {
        ShellRig rig;
        AppDelegate& shell = rig.awake();
        const double firstTick = rig.time->nowMs() + 5000.0;
        shell.lumerixDidDiscoverItem(
            rig.makeItem({uuidFor(1), -50, QStringLiteral("A")}, firstTick - c.ageAtTickMs));
        rig.time->advance(4999.0);
        EXPECT_EQ(shell.discoveredDeviceAry().size(), 1u) << "no tick yet";
        rig.time->advance(1.0);
        EXPECT_EQ(shell.discoveredDeviceAry().size(), c.kept ? 1u : 0u) << c.ageAtTickMs;
        // What the shell no longer lists, the handler may let go of.
        EXPECT_EQ(rig.handlers[0]->forgotten.size(), c.kept ? 0u : 1u) << c.ageAtTickMs;
    }
}

TEST(AppDelegateMenu, RebuildTickSkippedWhileMenuOpenButAgingGoesOn) {
    ShellRig rig;
    AppDelegate& shell = rig.launch();
    auto& item = *rig.statusBar->item;
    rig.discover({uuidFor(1), -50, QStringLiteral("A")});
    ASSERT_EQ(rig.menuRows().first(), QStringLiteral("A"));

    item.menuOpen = true;
    rig.time->advance(25000.0);
    EXPECT_TRUE(shell.discoveredDeviceAry().empty()) << "aged while the menu was open";
    EXPECT_EQ(rig.menuRows().first(), QStringLiteral("A")) << "menu left alone while open";
    EXPECT_EQ(shell.discoveredDevice().size(), 1);

    item.menuOpen = false;
    const int attached = item.menuAttachCount;
    rig.time->advance(5000.0);
    EXPECT_EQ(item.menuAttachCount, attached + 1);
    EXPECT_EQ(rig.menuRows().first(), QStringLiteral("---"));
    EXPECT_EQ(item.image->name(), QStringLiteral("Normal_Disable_Icon"));
}

TEST(AppDelegateMenu, AFloodOfReceiversIsShownInFewRebuildsAndFewRows) {
    ShellRig rig;
    writeDefaultTable(rig, twoReferenceEntries());
    AppDelegate& shell = rig.launch();
    const uint64_t revision = shell.statusMenu()->revision();
    // 200 receivers heard in the same instant, weakest first.
    const int count = 200;
    for (int i = 0; i < count; ++i) {
        shell.lumerixDidDiscoverItem(
            rig.makeItem({QStringLiteral("00000000-0000-0000-0000-%1").arg(i, 12, 10, QLatin1Char('0')),
                          -99.0 + i * 0.25, QStringLiteral("R%1").arg(i)}));
    }
    EXPECT_LE(shell.statusMenu()->revision() - revision, 1u) << "the first discovery may show at once";
    rig.time->advance(AppDelegate::kListRefreshIntervalMs);
    EXPECT_LE(shell.statusMenu()->revision() - revision, 2u);
    ASSERT_EQ(shell.discoveredDeviceAry().size(), static_cast<size_t>(count));
    EXPECT_EQ(shell.discoveredDevice().size(), count);

    // Only the strongest receivers get rows, above the fixed entries.
    const QStringList rows = rig.menuRows();
    const auto shown = static_cast<qsizetype>(AppDelegate::kMaxReceiverRows);
    ASSERT_EQ(rows.size(), shown + 5);
    EXPECT_EQ(rows.first(), QStringLiteral("R%1").arg(count - 1));
    EXPECT_EQ(rows.mid(shown), (QStringList{kBoardroom, kTraining, QStringLiteral("---"),
                                            QStringLiteral("About"), QStringLiteral("Exit")}));
    for (int i = 0; i < shown; ++i)
        EXPECT_TRUE(rows[i].mid(1).toInt() >= count - shown) << rows[i].toStdString();
    EXPECT_EQ(shell.menuList().size(), static_cast<size_t>(2 + shown));
}

TEST(AppDelegateMenu, AReceiverTheHandlerForgotLeavesTheList) {
    ShellRig rig;
    AppDelegate& shell = rig.launch();
    const QVLumerixItemRef a = rig.discover({uuidFor(1), -50, QStringLiteral("A")});
    rig.discover({uuidFor(2), -60, QStringLiteral("B")});
    const QVLumerixItemRef stranger = rig.makeItem({uuidFor(1), -40, QStringLiteral("A")});
    shell.lumerixDidForgetItem(stranger);  // another object for the same receiver: not this one
    rig.time->advance(AppDelegate::kListRefreshIntervalMs);
    EXPECT_EQ(shell.discoveredDeviceAry().size(), 2u);

    shell.lumerixDidForgetItem(a);
    rig.time->advance(AppDelegate::kListRefreshIntervalMs);
    ASSERT_EQ(shell.discoveredDeviceAry().size(), 1u);
    EXPECT_EQ(rig.menuRows().first(), QStringLiteral("B"));
    // Heard again, it comes back as a new entry rather than replacing a stale one.
    const QVLumerixItemRef again = rig.discover({uuidFor(1), -45, QStringLiteral("A")});
    ASSERT_EQ(shell.discoveredDeviceAry().size(), 2u);
    EXPECT_EQ(shell.discoveredDeviceAry()[0], again);
}

// Outside listeners (the D-Bus service) hear of changed rows, not of every advertisement.
TEST(AppDelegateMenu, ObserverHearsOfChangedRowsNotOfEveryReading) {
    ShellRig rig;
    AppDelegate& shell = rig.launch();
    int told = 0;
    shell.setReceiversObserver([&told] { ++told; });
    const QVLumerixItemRef a = rig.discover({uuidFor(1), -50, QStringLiteral("A")});
    const QVLumerixItemRef b = rig.discover({uuidFor(2), -70, QStringLiteral("B")});
    QVLumerixItemRef c;
    auto heard = [&shell](const QVLumerixItemRef& item, double rssi) {
        item->addNewRssi(rssi);
        shell.lumerixDidDiscoverItem(item);
    };
    struct Step {
        const char* what;
        std::function<void()> act;
        int told;
    };
    const Step steps[] = {
        {"a reading that keeps the order", [&] { heard(a, -55); }, 0},
        {"a reading that changes the order", [&] { heard(b, -40); }, 1},
        {"a new name", [&] { a->setReceiverName(QStringLiteral("A2")), heard(a, -55); }, 1},
        {"the same name again", [&] { a->setReceiverName(QStringLiteral("A2")), heard(a, -55); }, 0},
        {"a new address", [&] { b->setIpAddress(QStringLiteral("10.0.0.9")), heard(b, -40); }, 1},
        {"a newcomer",
         [&] {
             c = rig.makeItem({uuidFor(3), -90, QStringLiteral("C")}), heard(c, -90);
         },
         1},
        {"a forgotten receiver", [&] { shell.lumerixDidForgetItem(c); }, 1},
        {"two aged out at one tick, told once",
         [&] {
             rig.time->advance(AppDelegate::kReceiverTimeoutMs - 1000.0);
             c = rig.discover({uuidFor(4), -60, QStringLiteral("D")});
             told = 0;
             rig.time->advance(6000.0);
         },
         1},
        {"a reading of the one left", [&] { heard(c, -61); }, 0},
    };
    for (const Step& step : steps) {
        told = 0;
        step.act();
        rig.time->advance(AppDelegate::kListRefreshIntervalMs);
        EXPECT_EQ(told, step.told) << step.what;
    }
    EXPECT_EQ(shell.discoveredDeviceAry(), std::vector<QVLumerixItemRef>{c});
}

// Inserting each named receiver at its list position into the fixed entries, the way the menu
// has always been laid out; the shell patches its menu instead and must end up the same.
QStringList insertedLayout(QStringList fixed, const std::vector<std::optional<QString>>& names) {
    for (size_t i = 0; i < names.size(); ++i) {
        if (names[i]) fixed.insert(std::min(static_cast<qsizetype>(i), fixed.size()), *names[i]);
    }
    return fixed;
}

TEST(AppDelegateMenu, PatchedMenuMatchesTheInsertedLayoutAfterAnyChange) {
    uint32_t seed = 2024;
    auto next = [&seed](uint32_t n) { return (seed = seed * 1103515245u + 12345u) / 65536u % n; };
    for (int references : {0, 2, 5}) {
        ShellRig rig;
        QVariantList table;
        QStringList fixed;
        for (int r = 0; r < references; ++r) {
            table << QVariantMap{{QStringLiteral("Device"), QStringLiteral("Ref %1").arg(r)}};
            fixed << QStringLiteral("Ref %1").arg(r);
        }
        fixed << QStringLiteral("---") << QStringLiteral("About") << QStringLiteral("Exit");
        writeDefaultTable(rig, table);
        AppDelegate& shell = rig.launch();
        std::vector<QVLumerixItemRef> items;
        for (int round = 0; round < 200; ++round) {
            // Receivers come, change name or lose it, move, or age out.
            const uint32_t id = next(12);
            const uint32_t pick = next(4);
            const std::optional<QString> name =
                pick == 0 ? std::nullopt : std::optional<QString>(QStringLiteral("R%1").arg(next(6)));
            if (next(5) == 0) {
                rig.time->advance(25000.0);
            } else {
                rig.discover({uuidFor(static_cast<int>(id)), -40.0 - next(40), name});
            }
            std::vector<std::optional<QString>> names;
            for (const ReceiverDictionary& d : shell.discoveredDevice()) {
                const auto it = d.constFind(QStringLiteral("Device"));
                names.push_back(it == d.constEnd() ? std::nullopt : std::optional<QString>(*it));
            }
            ASSERT_EQ(rig.menuRows(), insertedLayout(fixed, names))
                << "references " << references << " round " << round;
            // The connect list: the reference entries, then the named receivers in list order.
            const auto named =
                std::count_if(names.begin(), names.end(), [](const auto& n) { return n.has_value(); });
            ASSERT_EQ(shell.menuList().size(), static_cast<size_t>(references + named));
        }
    }
}

TEST(AppDelegateMenu, UnchangedEntriesKeepTheirObjectsAndTheMenuItsRevision) {
    ShellRig rig;
    writeDefaultTable(rig, twoReferenceEntries());
    AppDelegate& shell = rig.launch();
    const QVLumerixItemRef a = rig.discover({uuidFor(1), -40, QStringLiteral("A")});
    rig.discover({uuidFor(2), -50, QStringLiteral("B")});
    const std::vector<MenuItemRef> before = shell.statusMenu()->items();
    const uint64_t revision = shell.statusMenu()->revision();

    // Heard again with the same details: nothing in the menu moves.
    a->addNewRssi(-42);
    shell.lumerixDidDiscoverItem(a);
    a->setReceiverName(QStringLiteral("A"));  // the same name decoded again
    shell.UpdateMenuOfStatusBar();
    EXPECT_EQ(shell.statusMenu()->revision(), revision);
    EXPECT_EQ(shell.statusMenu()->items(), before);

    // Renamed in place: only its row gets a new object, and the dictionary follows.
    a->setReceiverName(QStringLiteral("A2"));
    shell.UpdateMenuOfStatusBar();
    EXPECT_NE(shell.statusMenu()->revision(), revision);
    const std::vector<MenuItemRef>& after = shell.statusMenu()->items();
    ASSERT_EQ(after.size(), before.size());
    EXPECT_EQ(after[0]->title(), QStringLiteral("A2"));
    EXPECT_NE(after[0], before[0]);
    for (size_t i = 1; i < after.size(); ++i) EXPECT_EQ(after[i], before[i]) << i;
    EXPECT_EQ(shell.discoveredDevice()[0].value(QStringLiteral("Device")), QStringLiteral("A2"));
    EXPECT_EQ(shell.menuList()[2], after[0]) << "the connect list holds the new object";
}

TEST(AppDelegateConnect, LaunchOrSendWithTheReferenceIndexQuirk) {
    const QString a = QStringLiteral("A"), b = QStringLiteral("B"), c = QStringLiteral("C");
    struct Case {
        const char* name;
        QVariantList references;
        int chosen;  // position in the connect list; -1: an item not in it
        uint32_t senderProcesses;
        std::optional<QString> expectedReceiver;  // none: nothing happens
    };
    const Case cases[] = {
        {"running: first receiver", {}, 0, 1, a},
        {"running: more processes than capacity", {}, 2, 7, c},
        {"launch: second receiver", {}, 1, 0, b},
        {"first receiver row after two references maps to the third receiver", twoReferenceEntries(), 2, 1,
         c},
        {"past the end: logged no-op", twoReferenceEntries(), 3, 1, std::nullopt},
        {"unknown item counts as position 0", {}, -1, 0, a},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        ShellRig rig;
        rig.senderProcesses = k.senderProcesses;
        writeDefaultTable(rig, k.references);
        AppDelegate& shell = rig.launch();
        rig.discover({uuidFor(1), -40, a, QStringLiteral("10.0.0.1"), QStringLiteral("1111")});
        rig.discover({uuidFor(2), -50, b, QStringLiteral("10.0.0.2"), QStringLiteral("2222")});
        rig.discover({uuidFor(3), -60, c, QStringLiteral("10.0.0.3"), QStringLiteral("3333")});
        ScopedLogCapture log;
        const MenuItemRef chosen = k.chosen < 0 ? MenuItem::initWithTitle(a, MenuAction::DeviceConnect)
                                                : shell.menuList().at(static_cast<size_t>(k.chosen));
        shell.performMenuAction(chosen);

        if (!k.expectedReceiver) {
            EXPECT_TRUE(rig.commands.empty() && rig.frames.empty());
            EXPECT_FALSE(shell.dictTargetDevice().isPending());
            EXPECT_TRUE(
                log.contains(QStringLiteral("DeviceConnectAction: no receiver at position 3 (3 listed)")));
            continue;
        }
        const int n = *k.expectedReceiver == a ? 1 : *k.expectedReceiver == b ? 2 : 3;
        const ConnectionInfo expected{{QStringLiteral("IP"), QStringLiteral("10.0.0.%1").arg(n)},
                                      {QStringLiteral("LoginCode"), QString(4, QChar(u'0' + n))},
                                      {QStringLiteral("DeviceName"), *k.expectedReceiver},
                                      {QStringLiteral("WiFiSSID"), *k.expectedReceiver}};
        if (k.senderProcesses == 0) {
            EXPECT_EQ(rig.commands, std::vector<QByteArray>{QByteArray("com.Sharvane.Ondrel")});
            EXPECT_TRUE(rig.frames.empty());
            EXPECT_EQ(shell.dictTargetDevice().take(), expected);
        } else {
            EXPECT_TRUE(rig.commands.empty());
            EXPECT_EQ(rig.frames, std::vector<QByteArray>{frameFor(expected)});
            EXPECT_FALSE(shell.dictTargetDevice().isPending());
        }
    }
}

// Chosen twice before the launched sender asks: the real listener hands out only the second, once.
TEST(AppDelegateConnect, ChoosingTwiceThenTheSenderAsksTheListener) {
    ShellRig rig;
    rig.env.listenerPort = 0;  // any free port
    AppDelegate& shell = rig.launch();
    rig.discover({uuidFor(1), -40, QStringLiteral("A")});
    rig.discover({uuidFor(2), -50, QStringLiteral("B")});
    shell.DeviceConnectAction(shell.menuList()[0]);
    shell.DeviceConnectAction(shell.menuList()[1]);
    EXPECT_EQ(rig.commands.size(), 2u);

    const uint16_t port = shell.commandListener()->port();
    ASSERT_NE(port, 0);
    auto ask = [&] {
        const auto reply =
            testing_loopback::askListener(port, {0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x02, 0x03});
        return QByteArray(reinterpret_cast<const char*>(reply.data()), static_cast<qsizetype>(reply.size()));
    };
    const ConnectionInfo expected{{QStringLiteral("IP"), QStringLiteral("10.0.0.1")},
                                  {QStringLiteral("LoginCode"), QStringLiteral("1234")},
                                  {QStringLiteral("DeviceName"), QStringLiteral("B")},
                                  {QStringLiteral("WiFiSSID"), QStringLiteral("B")}};
    EXPECT_EQ(ask(), frameFor(expected));
    EXPECT_EQ(ask(), QByteArray(1, '\0')) << "take-once: the second request gets nothing";
}

// What is found at the saved table's path, and what the shell makes of it.
enum class AtPath { Nothing, File, Link, Fifo };

// Puts a file of these bytes at the saved table's path, a link to one kept at target, or a FIFO.
void placeSavedTable(ShellRig& rig, AtPath kind, const QByteArray& bytes, const QString& target) {
    const QString path = rig.savedTablePath();
    if (kind == AtPath::Nothing) return;
    rig.writeSavedTable(bytes);
    if (kind == AtPath::Link) {
        QFile::rename(path, target);
        EXPECT_TRUE(QFile::link(target, path));
    } else if (kind == AtPath::Fifo) {
        QFile::remove(path);
        EXPECT_EQ(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    }
}

// The mode of what is at path, the link itself for a link; 0 when there is nothing.
mode_t modeAt(const QString& path) {
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 ? st.st_mode : 0;
}

TEST(AppDelegateReferenceTable, DefaultSavedAndUnreadableFiles) {
    const QVariantList defaults = twoReferenceEntries();
    const QVariantList saved{
        QVariantMap{{QStringLiteral("Device"), QStringLiteral("Mine")}, {QStringLiteral("Seen"), qint64(3)}}};
    const QByteArray broken("<plist><array><dict>");
    struct Case {
        const char* name;
        bool haveDefault;
        AtPath atPath;
        QByteArray savedFile;  // the file's bytes, or those of the link's target
        QVariantList loaded;
        QVariantList written;
        bool keptAside;
    };
    const Case cases[] = {
        {"first run copies the default", true, AtPath::Nothing, {}, defaults, defaults, false},
        {"no default: an empty table", false, AtPath::Nothing, {}, {}, {}, false},
        {"saved file replaces the default", true, AtPath::File, tableXml(saved), saved, saved, false},
        {"zero-entry saved file hides the default", true, AtPath::File, tableXml({}), {}, {}, false},
        {"unreadable saved file is kept beside", true, AtPath::File, broken, {}, {}, true},
        // A link is neither read nor written through: its target stays as it was.
        {"link to a good table is kept beside", true, AtPath::Link, tableXml(saved), {}, {}, true},
        // Opening a FIFO for reading would wait for a writer for ever.
        {"FIFO is kept beside", true, AtPath::Fifo, {}, {}, {}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ShellRig rig;
        if (c.haveDefault) writeDefaultTable(rig, defaults);
        const QString path = rig.savedTablePath();
        const QString target = rig.resources.filePath(QStringLiteral("elsewhere.plist"));
        placeSavedTable(rig, c.atPath, c.savedFile, target);
        AppDelegate& shell = rig.launch();
        EXPECT_EQ(shell.referenceTable(), c.loaded);
        shell.applicationWillTerminate();

        EXPECT_EQ(ReferenceTable::arrayWithContentsOfFile(path), c.written);
        EXPECT_EQ(modeAt(path), S_IFREG | 0600u)
            << "a regular file, for the user alone: it holds login codes";

        // Kept aside as it was: a link stays a link, a FIFO a FIFO, a file keeps its bytes.
        const QString aside = path + QStringLiteral(".unreadable");
        const mode_t keptKind = c.atPath == AtPath::Link   ? S_IFLNK
                                : c.atPath == AtPath::Fifo ? S_IFIFO
                                                           : S_IFREG;
        EXPECT_EQ(modeAt(aside) & S_IFMT, c.keptAside ? keptKind : 0);
        if (!c.keptAside || c.atPath == AtPath::Fifo) continue;
        QFile f(c.atPath == AtPath::Link ? target : aside);
        ASSERT_TRUE(f.open(QIODevice::ReadOnly));
        EXPECT_EQ(f.readAll(), c.savedFile) << "the user's bytes, untouched";
    }
}

}  // namespace
}  // namespace lumerix
