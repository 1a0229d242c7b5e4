#pragma once
// Whether the desktop runs a tray host, and word when one comes up later on the session bus.
// Asked without Qt's own tray check on purpose: Qt decides once per process whether its tray icons
// go through D-Bus, so asking it before a StatusNotifierWatcher runs would keep the icon off that
// watcher for good. A watcher counts once it says a host is registered, as Qt requires.
#include <QObject>
#include <functional>
#include <memory>
#include <optional>

class QDBusServiceWatcher;

namespace lumerix {

class TrayHost final : public QObject {
    Q_OBJECT
public:
    static constexpr const char* kWatcherService = "org.kde.StatusNotifierWatcher";
    static constexpr const char* kWatcherPath = "/StatusNotifierWatcher";

    // appeared runs once, on the main thread, when a tray host comes up after start-up.
    explicit TrayHost(std::function<void()> appeared);
    ~TrayHost() override;

    // A StatusNotifierWatcher with a host on the session bus, or an XEmbed tray on the X11 screen.
    static bool isRunning();
    static bool statusNotifierHostRegistered();
    static bool xembedTrayRunning();
    // Whether the X server's default screen has a system tray (its selection has an owner); unset
    // when no X server answers.
    static std::optional<bool> xembedSelectionOwned();

private Q_SLOTS:
    void hostRegistered();

private:
    void askWatcher();

    std::unique_ptr<QDBusServiceWatcher> watcher_;
    std::function<void()> appeared_;
};

}  // namespace lumerix
