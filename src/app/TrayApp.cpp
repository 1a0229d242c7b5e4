#include "app/TrayApp.h"

#include <QApplication>
#include <QDBusConnection>
#include <cstdio>

#include "app/HeadlessSession.h"
#include "app/ProductionEnvironment.h"
#include "app/QtShellApplication.h"
#include "app/QtStatusItem.h"
#include "app/ReceiverService.h"
#include "app/UnixSignalWatcher.h"
#include "dispatch/QtQueues.h"
#include "log/Log.h"
#include "platform/linux/BluezPowerCheck.h"
#include "platform/linux/LogindWorkspace.h"
#include "shell/AppDelegate.h"
#include "shell/PathManager.h"

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
    HeadlessSession::installLogSink();

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Lumerix"));
    QApplication::setApplicationVersion(QStringLiteral(LUMERIX_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("lumerix"));
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
    HandlerEnvironment handlerEnv = makeProductionEnvironment(&mainQueue, *source);
    auto application = std::make_shared<QtShellApplication>();

    ShellEnvironment env;
    env.clock = handlerEnv.clock;
    env.mainQueue = &mainQueue;
    env.makeHandler = makeHandlerFactory(handlerEnv);
    env.statusBar = QtStatusBar::makeStatusBar(PathManager::GetResourcePath());
    env.application = application;
    env.workspace = std::make_shared<LogindWorkspace>(QDBusConnection::systemBus());
    if (demo) {
        // The simulated receivers and a replayed trace need no adapter.
        env.bluetoothPowered = [] { return true; };
    } else {
        env.bluetoothPowered = [] {
            return BluezPowerCheck::InitBlueToothDevice(QDBusConnection::systemBus());
        };
    }

    AppDelegate delegate(std::move(env));
    // One tray per session: the service's name tells whether another instance already runs.
    ReceiverService service(delegate, mainQueue);
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
    application->setWillTerminate([&delegate] { delegate.applicationWillTerminate(); });
    UnixSignalWatcher signals([&application](int signal) {
        Log::logf("Signal %d received: quitting", signal);
        application->terminate();
    });

    delegate.awakeFromNib();
    // Launching finishes from the event loop, as on any desktop: a termination asked for during
    // launch (Bluetooth off) then runs after the launch sequence, from the same loop.
    QMetaObject::invokeMethod(
        &app, [&delegate] { delegate.applicationDidFinishLaunching(); }, Qt::QueuedConnection);
    const int status = QApplication::exec();
    application->setWillTerminate(nullptr);
    return status;
}

}  // namespace lumerix
