#pragma once
// Whether the desktop runs a tray host, and word when a StatusNotifierWatcher comes up later.
// Asked without Qt's own tray check on purpose: Qt decides once per process whether its tray icons
// go through D-Bus, so asking it before a watcher runs would keep the icon off that watcher for good.
#include <QObject>
#include <functional>
#include <memory>

class QDBusServiceWatcher;

namespace lumerix {

class TrayHost final : public QObject {
public:
    static constexpr const char* kWatcherService = "org.kde.StatusNotifierWatcher";

    // appeared runs once, on the main thread, when a watcher registers after start-up.
    explicit TrayHost(std::function<void()> appeared);
    ~TrayHost() override;

    // A StatusNotifierWatcher on the session bus, or an XEmbed tray on the X11 screen.
    static bool isRunning();
    static bool statusNotifierWatcherRunning();
    static bool xembedTrayRunning();

private:
    std::unique_ptr<QDBusServiceWatcher> watcher_;
    std::function<void()> appeared_;
};

}  // namespace lumerix
