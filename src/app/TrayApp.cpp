#include "app/TrayApp.h"

#include <QApplication>
#include <QDBusConnection>
#include <QFileInfo>
#include <QIcon>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <future>
#include <memory>

#include "app/DiagnosticsWindow.h"
#include "app/HeadlessSession.h"
#include "app/LauncherSearch.h"
#include "app/ProductionEnvironment.h"
#include "app/QtShellApplication.h"
#include "app/QtStatusItem.h"
#include "app/ReceiverService.h"
#include "app/ReferenceTableLocation.h"
#include "app/Translations.h"
#include "app/UnixSignalWatcher.h"
#include "ble/ScanDemand.h"
#include "dispatch/QtQueues.h"
#include "log/Log.h"
#include "platform/linux/BluezPowerCheck.h"
#include "platform/linux/DesktopEntry.h"
#include "platform/linux/DesktopNotifier.h"
#include "platform/linux/GetPID.h"
#include "platform/linux/GlobalShortcutPortal.h"
#include "platform/linux/LogindWorkspace.h"
#include "platform/linux/LoopbackSockets.h"
#include "platform/linux/PathManager.h"
#include "platform/linux/SenderLauncher.h"
#include "platform/linux/SyslogSink.h"
#include "sender/DeliveryWorker.h"
#include "shell/AppDelegate.h"

#ifndef LUMERIX_VERSION
#define LUMERIX_VERSION "0"
#endif

namespace lumerix {

namespace {

constexpr const char* kMainQueueLabel = "com.zemko.Lumerix.main";

// A display server to talk to, or a Qt platform that needs none (offscreen, minimal, vnc...).
bool hasDisplay() {
    if (!qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return true;
    const QString platform = qEnvironmentVariable("QT_QPA_PLATFORM").section(QLatin1Char(';'), 0, 0);
    const QString plugin = platform.section(QLatin1Char(':'), 0, 0).trimmed();
    return !plugin.isEmpty() && plugin != QLatin1String("xcb") &&
           !plugin.startsWith(QLatin1String("wayland"));
}

}  // namespace

int runTrayApp(int argc, char** argv, const CommandLine& options) {
    if (!hasDisplay()) {
        std::fputs(
            "lumerix: no display (neither DISPLAY nor WAYLAND_DISPLAY is set), so no tray icon; "
            "lumerix --scan works without one\n",
            stderr);
        return 1;
    }
    installSystemLogSink();
    // A sender that closes its end early must cost a failed send, not the program: every socket
    // write (listener replies, frame delivery) relies on this instead of a per-call flag.
    std::signal(SIGPIPE, SIG_IGN);

    QApplication app(argc, argv);
    installTranslations();
    QApplication::setApplicationName(QStringLiteral("Lumerix"));
    QApplication::setApplicationVersion(QStringLiteral(LUMERIX_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("com.zemko.Lumerix"));
    // Theme icons of a build tree or an unusual prefix: share/icons beside share/lumerix.
    const QString iconDir =
        QFileInfo(PathManager::GetResourcePath() + QStringLiteral("/../icons")).absoluteFilePath();
    if (!QIcon::themeSearchPaths().contains(iconDir) && QFileInfo::exists(iconDir))
        QIcon::setThemeSearchPaths(QIcon::themeSearchPaths() << iconDir);
    // The program lives in the tray: closing the About box or an alert must not end it.
    QApplication::setQuitOnLastWindowClosed(false);
    const bool demo = options.demo || !options.replayPath.isEmpty();
    QString error;
    const std::optional<ScanSource> source = ScanSource::fromCommandLine(options, &error);
    if (!source) {
        std::fprintf(stderr, "lumerix: %s\n", qUtf8Printable(error));
        return 1;
    }

    QtEventQueue mainQueue(kMainQueueLabel, &app);
    // Someone looks while the menu is open or a D-Bus client asks: the radio does not pause then.
    auto demand = std::make_shared<ScanDemand>();
    HandlerEnvironment handlerEnv = makeProductionEnvironment(&mainQueue, *source, demand);
    auto application = std::make_shared<QtShellApplication>();
    // Frames go only to our own user's sender, and the listener answers only our own processes.
    const PeerCheck peers = makeLoopbackPeerCheck();
    DeliveryWorker delivery(kSenderDataPort, peers);  // outlives the delegate below

    ShellEnvironment env;
    env.clock = handlerEnv.clock;
    env.mainQueue = &mainQueue;
    env.makeHandler = makeHandlerFactory(handlerEnv);
    auto statusBar = QtStatusBar::makeStatusBar(PathManager::GetResourcePath());
    statusBar->setMenuOpenNote([demand, looking = std::make_shared<ScanDemand::Hold>()](bool open) {
        *looking = open ? demand->hold() : nullptr;
    });
    env.statusBar = statusBar;
    env.application = application;
    env.resourcePath = ReferenceTableLocation::defaultFolder(demo, PathManager::GetResourcePath());
    env.applicationSupportPath = demo ? ReferenceTableLocation::demoSupportFolder()
                                      : PathManager::GetApplicationSupportPath().value_or(QString());
    env.workspace = std::make_shared<LogindWorkspace>(QDBusConnection::systemBus());
    env.launcher = &SenderLauncher::launchApplication;
    env.processLookup = &GetAllPIDsForProcessName;
    env.peers = peers;
    env.delivery = [&delivery](QByteArray frame, DeliveryDone done) {
        delivery.deliver(std::move(frame), std::move(done));
    };
    // The start-up Bluetooth check runs on a worker while the event loop starts; launching
    // finishes once it has answered, and the shell reads that answer.
    auto powered = std::make_shared<std::atomic<bool>>(true);
    env.bluetoothPowered = [powered] { return powered->load(); };
    env.quietLaunch = options.autostart;
    env.notifier = std::make_shared<DesktopNotifier>(QDBusConnection::sessionBus(), QStringLiteral("Lumerix"),
                                                     QStringLiteral("com.zemko.Lumerix"));
    env.troubleshoot = [] { showDiagnostics(); };
    env.senderInstalled = [] {
        return !desktopEntryPath(QLatin1String(AppDelegate::kSenderBundleIdentifier)).isEmpty();
    };

    AppDelegate delegate(std::move(env));
    // One tray per session: the service's name tells whether another instance already runs.
    ReceiverService service(delegate, mainQueue, demand);
    // Launcher searches reach the tray by its name, so their objects are there before the name is.
    WarmUpGate searchGate(service);
    SearchProvider searchProvider(service, searchGate);
    RunnerService runner(service, searchGate);
    searchProvider.registerOn(QDBusConnection::sessionBus());
    runner.registerOn(QDBusConnection::sessionBus());
    switch (service.registerOn(QDBusConnection::sessionBus(), &error)) {
        case ReceiverService::Registration::Registered:
            break;
        case ReceiverService::Registration::NameTaken:
            std::fprintf(stderr, "lumerix: Lumerix is already running (%s); not starting a second one\n",
                         qUtf8Printable(error));
            Log::logf("Another instance holds %s: exiting", ReceiverService::kServiceName);
            return 0;
        case ReceiverService::Registration::Failed:
            Log::logf("The D-Bus service is off: %s", qUtf8Printable(error));
            break;
    }
    GlobalShortcutPortal shortcut(QDBusConnection::sessionBus(), QStringLiteral("present-nearest"),
                                  QCoreApplication::translate("TrayApp", "Present to the nearest room"),
                                  QStringLiteral("CTRL+ALT+P"), [&service] { service.ConnectNearest(); });
    shortcut.start();
    application->setWillTerminate([&delegate] { delegate.applicationWillTerminate(); });
    UnixSignalWatcher signals([&application](int signal) {
        Log::logf("Signal %d received: quitting", signal);
        application->terminate();
    });

    delegate.awakeFromNib();
    // Launching finishes from the event loop, as on any desktop: a termination asked for during
    // launch (Bluetooth off) then runs after the launch sequence, from the same loop.
    auto finishLaunching = [&delegate] { delegate.applicationDidFinishLaunching(); };
    std::future<void> powerCheck;
    if (demo) {  // the simulated receivers need no adapter
        QMetaObject::invokeMethod(&app, finishLaunching, Qt::QueuedConnection);
    } else {
        powerCheck = std::async(std::launch::async, [&app, powered, finishLaunching] {
            powered->store(BluezPowerCheck::InitBlueToothDevice());
            QMetaObject::invokeMethod(&app, finishLaunching, Qt::QueuedConnection);
        });
    }
    const int status = QApplication::exec();
    application->setWillTerminate(nullptr);
    return status;
}

}  // namespace lumerix
