#include "ShellFakes.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

namespace lumerix::shelltest {

ShellRig::ShellRig() {
    env.clock = time;
    env.mainQueue = &mainQueue;
    env.makeHandler = [this]() -> std::unique_ptr<LumerixScanning> {
        handlers.push_back(std::make_shared<HandlerLog>());
        return std::make_unique<FakeScanning>(handlers.back(), scanFailures, centralState);
    };
    env.statusBar = statusBar;
    env.application = application;
    env.workspace = workspace;
    env.notifier = notifier;
    env.senderInstalled = [this] { return senderInstalled; };
    env.bluetoothPowered = [this] { return bluetoothOn; };
    env.launcher = [this](const QByteArray& command) {
        commands.push_back(command);
        return launcherStatus;
    };
    env.processLookup = [this](const char* name, uint32_t uid, int32_t* pids, uint32_t capacity,
                               uint32_t* count, int*) {
        lookupUids.push_back(uid);
        if (QByteArray(name) != "Sharvane") return -1;
        *count = std::min(senderProcesses, capacity);
        for (uint32_t i = 0; i < *count; ++i) pids[i] = static_cast<int32_t>(100 + i);
        return senderProcesses == 0 ? -1 : 0;
    };
    env.delivery = [this](QByteArray frame, DeliveryDone done) {
        frames.push_back(std::move(frame));
        deliveries.push_back(std::move(done));
    };
    env.sleeper = [this](std::chrono::microseconds pause) {
        EXPECT_EQ(pause.count(), 10000);
        ++pauses;
    };
    env.listenerPort = std::nullopt;
    env.resourcePath = resources.path();
    env.applicationSupportPath = support.path();
}

ShellRig::~ShellRig() { shell.reset(); }

AppDelegate& ShellRig::awake() {
    shell = std::make_unique<AppDelegate>(env);
    shell->awakeFromNib();
    return *shell;
}

AppDelegate& ShellRig::launch() {
    awake();
    shell->applicationDidFinishLaunching();
    return *shell;
}

QVLumerixItemRef ShellRig::makeItem(const ReceiverSetup& setup, double lastHeardMs) {
    BlePeripheralRef peripheral;
    if (!setup.uuid.isEmpty())
        peripheral = std::make_shared<StaticPeripheral>(setup.uuid, QStringLiteral("LX"));
    auto item = QVLumerixItem::initWithPeripheral(peripheral, time);
    item->addNewRssi(setup.rssi);
    item->setDiscoveredTimeStamp(lastHeardMs < 0 ? time->nowMs() : lastHeardMs);
    item->setReceiverName(setup.name);
    item->setIpAddress(setup.ip);
    item->setLoginCode(setup.login);
    return item;
}

QVLumerixItemRef ShellRig::discover(const ReceiverSetup& setup) {
    auto item = makeItem(setup);
    shell->lumerixDidDiscoverItem(item);
    // Past the list's refresh interval, so the menu shows this discovery.
    time->advance(AppDelegate::kListRefreshIntervalMs);
    return item;
}

QStringList ShellRig::menuRows() const {
    QStringList rows;
    const MenuRef& menu = shell->statusMenu();
    if (!menu) return rows;
    for (const MenuItemRef& item : menu->items()) {
        if (item->isSeparatorItem()) {
            rows << QStringLiteral("---");
        } else {
            rows << item->title().value_or(QStringLiteral("<untitled>"));
        }
    }
    return rows;
}

QString ShellRig::savedTablePath() const {
    return support.path() + QStringLiteral("/Tavik/Lumerix/ReferenceTable.plist");
}

void ShellRig::writeSavedTable(const QByteArray& content) {
    QDir().mkpath(support.path() + QStringLiteral("/Tavik/Lumerix"));
    QFile f(savedTablePath());
    if (f.open(QIODevice::WriteOnly)) f.write(content);
}

}  // namespace lumerix::shelltest
