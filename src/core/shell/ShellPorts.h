#pragma once
// The desktop as the shell sees it. AppDelegate reaches the status bar, alerts, the application
// object, sleep/wake notices, desktop notifications, the Bluetooth power check, the sender launcher
// and delivery, and the scanning handler only through these small interfaces; the tray adapter implements
// them for real and unit tests implement them in-process.
//
// Notes for implementers:
// - Every call from the shell happens on the main queue, and every call into the shell (menu
//   actions, sleep/wake notices) must be made on the main queue too.
// - The shell keeps one Menu, patches it on every refresh (an entry whose title is unchanged keeps
//   its MenuItem object; Menu::revision() moves with every edit) and attaches it again with
//   setMenu(); show only what changed, and an unchanged revision means nothing did. A chosen entry
//   is reported back with the very MenuItemRef object of the menu currently attached.
#include <QByteArray>
#include <QString>
#include <QStringList>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "dispatch/Clock.h"
#include "dispatch/DispatchQueue.h"
#include "receiver/QVLumerixHandler.h"
#include "sender/ConnectionInfo.h"
#include "sender/MainController.h"
#include "sender/PeerCheck.h"
#include "shell/Menu.h"

namespace lumerix {

// A named image from the application's resources ("Normal_Icon", "Normal_Disable_Icon"). A
// template image is drawn as a mask in the desktop's own colours.
class StatusImage {
public:
    explicit StatusImage(QString name) : name_(std::move(name)) {}
    const QString& name() const { return name_; }
    bool isTemplate() const { return template_; }
    void setTemplate(bool v) { template_ = v; }

private:
    QString name_;
    bool template_ = false;
};
using StatusImageRef = std::shared_ptr<StatusImage>;

// Receives the actions of the status menu's entries.
class MenuActionTarget {
public:
    virtual ~MenuActionTarget() = default;
    // item: the chosen entry of the menu currently attached; its action() tells what to do.
    virtual void performMenuAction(const MenuItemRef& item) = 0;
};

// The icon in the tray and its menu.
class StatusItem {
public:
    virtual ~StatusItem() = default;
    virtual void setTarget(MenuActionTarget* target) = 0;    // null detaches
    virtual void setImage(const StatusImageRef& image) = 0;  // null shows no image
    virtual void setMenu(const MenuRef& menu) = 0;           // called on every rebuild
    // True while the user has the menu open; the periodic rebuild skips its tick then.
    virtual bool isMenuOpen() const = 0;
    // Plain text shown when the pointer rests on the icon.
    virtual void setToolTip(const QString& text) {}
    // Bluetooth cannot be used (off, no adapter, no bluetoothd): hosts that can, draw attention.
    virtual void setNeedsAttention(bool attention) {}
};
using StatusItemRef = std::shared_ptr<StatusItem>;

inline constexpr double kVariableStatusItemLength = -1.0;

// The system tray. A null StatusBar pointer stands for a session with no desktop at all.
class StatusBar {
public:
    virtual ~StatusBar() = default;
    // False while the desktop runs no tray host: items made meanwhile stay hidden and appear, with
    // what they were last given, once a host comes up.
    virtual bool isTrayAvailable() const { return true; }
    // Null when no item can be created.
    virtual StatusItemRef statusItemWithLength(double length) = 0;
    // Null when the resource is missing.
    virtual StatusImageRef imageNamed(const QString& name) = 0;
};

// A modal message box.
struct Alert {
    enum Style { Warning = 0, Informational = 1, Critical = 2 };
    QString messageText;
    QString informativeText;
    QStringList buttons;  // left to right; the first is the default
    int alertStyle = Warning;
};

// The application object.
class ShellApplication {
public:
    virtual ~ShellApplication() = default;
    virtual void hide() = 0;
    // Asks the application to end; the desktop later calls AppDelegate::applicationWillTerminate
    // from its event loop and quits. Must not terminate synchronously.
    virtual void terminate() = 0;
    // Runs the alert modally; returns the index of the button pressed.
    virtual int runModal(const Alert& alert) = 0;
    // The standard About box from the application's own name and version.
    virtual void orderFrontStandardAboutPanel() = 0;
};

// A button on a notification; invoke runs on the main queue when the user presses it.
struct NotificationAction {
    QString key;    // stable, never shown
    QString label;  // the button's text
    std::function<void()> invoke;
};

// A desktop notification: a one-line summary, a plain-text body and optional buttons.
struct Notification {
    QString summary;
    QString body;
    std::vector<NotificationAction> actions;
};

// Desktop notifications (org.freedesktop.Notifications on Linux). Fire and forget: never blocks,
// and shows nothing when the desktop has no notification server. Buttons are offered only where
// the desktop supports them; elsewhere the notification is shown without them.
class Notifier {
public:
    virtual ~Notifier() = default;
    virtual void notify(const Notification& notification) = 0;
};

// Sleep and wake notices of the session (logind PrepareForSleep on Linux).
class WorkspaceObserver {
public:
    virtual ~WorkspaceObserver() = default;
    virtual void receiveSleepNote() = 0;
    virtual void receiveWakeNote() = 0;
};

class Workspace {
public:
    virtual ~Workspace() = default;
    // The observer is told on the main queue until removed.
    virtual void addObserver(WorkspaceObserver* observer) = 0;
    virtual void removeObserver(WorkspaceObserver* observer) = 0;
};

// What the shell needs of the scanning handler; production wraps QVLumerixHandler.
class LumerixScanning {
public:
    virtual ~LumerixScanning() = default;
    virtual bool scanForLumerixService(bool start) = 0;
    virtual void setDelegate(LumerixHandler_Delegate* delegate) = 0;
    virtual LumerixHandler_Delegate* delegate() const = 0;
    // The wrapped handler, when there is one (null in tests).
    virtual std::shared_ptr<QVLumerixHandler> handler() const { return nullptr; }
    // The central's state (BleState) when the handler has a central; nullopt before.
    virtual std::optional<int> centralState() const { return std::nullopt; }
    // The shell no longer lists the item (it aged out): the handler may let it go.
    virtual void forgetItem(const QVLumerixItemRef& item) {}
};
// Makes a fresh handler (at awakening and on every wake).
using LumerixScanningFactory = std::function<std::unique_ptr<LumerixScanning>()>;
// The real handler, built from env at every call.
LumerixScanningFactory makeHandlerFactory(HandlerEnvironment env);

// True when Bluetooth is available and powered on (InitBlueToothDevice).
using BluetoothPowerCheck = std::function<bool()>;
// Starts the application with the given bundle identifier and returns the status of the launch
// command (system()).
using Launcher = std::function<int(const QByteArray& bundleIdentifier)>;
// Same contract as GetAllPIDsForProcessName (uid 0 matches any user).
using ProcessLookup = std::function<int(const char* name, uint32_t uid, int32_t* pids, uint32_t capacity,
                                        uint32_t* count, int* error)>;
// True when the sender application is installed (Linux: its desktop entry is found).
using SenderInstallCheck = std::function<bool()>;
// Told once what became of a frame for the sender; may be called on any thread.
using DeliveryDone = std::function<void(DeliveryOutcome)>;
// Delivers one frame to the sender's data port. Frames must arrive in the order given; the call
// should return at once (production sends from a DeliveryWorker's thread) and call done when
// the outcome is known.
using SenderDelivery = std::function<void(QByteArray frame, DeliveryDone done)>;
// Pauses the calling thread (usleep); tests count the calls instead.
using Sleeper = std::function<void(std::chrono::microseconds)>;

// Everything AppDelegate is built from. The desktop's own parts (launcher, process table, frame
// delivery, folders) come from the app; only portable defaults are filled in here.
struct ShellEnvironment {
    std::shared_ptr<Clock> clock;                   // default: systemClock()
    DispatchQueue* mainQueue = nullptr;             // required; the timers run here
    LumerixScanningFactory makeHandler;             // required
    std::shared_ptr<StatusBar> statusBar;           // null: no tray
    std::shared_ptr<ShellApplication> application;  // required
    std::shared_ptr<Workspace> workspace;           // null: no sleep/wake notices
    std::shared_ptr<Notifier> notifier;             // null: no desktop notifications
    BluetoothPowerCheck bluetoothPowered;           // default: always true
    Launcher launcher;                              // null: the sender is never launched
    SenderInstallCheck senderInstalled;             // null: taken as installed
    std::function<void()> troubleshoot;             // shows diagnostics; null: not offered
    ProcessLookup processLookup;                    // null: the sender never counts as running
    // Our uid and the socket owners: the sender is looked up among our own processes (peers.self,
    // 0 for any) and the command listener answers only our own processes. Empty: nothing checked.
    PeerCheck peers;
    SenderDelivery delivery;  // null: frames are dropped
    Sleeper sleeper;          // default: std::this_thread::sleep_for
    // Login mode: Bluetooth off at launch raises no alert and does not end the program; the shell
    // waits in the tray and starts scanning when the central reports power.
    bool quietLaunch = false;
    // The command listener's port; nullopt leaves the listener off (tests), 0 picks a free port.
    std::optional<uint16_t> listenerPort = kSenderCommandPort;
    // Folder holding "DefaultReferenceTable.plist"; empty: no default receivers.
    QString resourcePath;
    // The Application Support folder; empty: the reference table is neither read nor written.
    QString applicationSupportPath;
};

}  // namespace lumerix
