#pragma once
// The shell's lifecycle under the design's names: start-up and shut-down, the Bluetooth check, the
// aging and menu-rebuild timers, sleep and wake, and the sender command listener. Its other jobs
// are classes of their own: the saved receivers (ReferenceTableStore), the receivers heard lately
// (ReceiverList), the menu built from them (StatusMenuModel) and the sender link
// (SenderConnector). Everything except the listener thread runs on the main queue; the desktop is
// reached only through ShellPorts.
//
// When the central's state returns to powered on while the shell is awake and not scanning (power
// switched back on, the adapter plugged back, bluetoothd restarted), scanning starts again as at
// launch.
#include <QByteArray>
#include <QVariantList>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "dispatch/DispatchTimer.h"
#include "dispatch/Throttle.h"
#include "receiver/QVLumerixItem.h"
#include "sender/CommandListener.h"
#include "sender/ConnectionInfo.h"
#include "shell/ReceiverList.h"
#include "shell/ReceiverToolTip.h"
#include "shell/ReferenceTableStore.h"
#include "shell/SenderConnector.h"
#include "shell/ShellPorts.h"
#include "shell/StatusMenuModel.h"

namespace lumerix {

class AppDelegate final : public LumerixHandler_Delegate, public MenuActionTarget, public WorkspaceObserver {
public:
    static constexpr double kCheckTimeoutIntervalSeconds = 5.0;
    static constexpr double kMenuRebuildIntervalSeconds = 5.0;
    static constexpr double kReceiverTimeoutMs = ReceiverList::kReceiverTimeoutMs;
    static constexpr size_t kMaxReceiverRows = StatusMenuModel::kMaxReceiverRows;
    static constexpr double kListRefreshIntervalMs = ReceiverList::kRefreshIntervalMs;
    static constexpr const char* kSenderProcessName = SenderConnector::kSenderProcessName;
    static constexpr const char* kSenderBundleIdentifier = SenderConnector::kSenderBundleIdentifier;
    static constexpr uint32_t kProcessIdCapacity = SenderConnector::kProcessIdCapacity;
    static constexpr const char* kReferenceTableFileName = ReferenceTableStore::kReferenceTableFileName;
    static constexpr const char* kDefaultReferenceTableFileName =
        ReferenceTableStore::kDefaultReferenceTableFileName;
    static constexpr const char* kUnreadableSuffix = ReferenceTableStore::kUnreadableSuffix;
    static constexpr const char* kSenderDisplayName = SenderConnector::kSenderDisplayName;

    explicit AppDelegate(ShellEnvironment env);
    // dealloc: stops the timers and the listener, lets go of the handler.
    ~AppDelegate() override;
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    // Lifecycle.
    void awakeFromNib();
    void applicationDidFinishLaunching();
    void applicationWillTerminate();
    void receiveSleepNote() override;
    void receiveWakeNote() override;
    void StartScanBeacon();
    void StopScanBeacon();
    void ShowAbout();
    void QuitApp();

    // Reference table.
    bool LoadReferenceTable();
    bool SaveReferenceTable();
    // <Application Support>/Tavik/Lumerix; empty when there is no Application Support folder.
    QString ReferenceTableFolder() const;

    // Receiver list and menu.
    void InitStatusBar();
    void AddFixedMenuItems();
    void UpdateMenuOfStatusBar();
    void UpdateMenu();
    // Aging; ignores any timer but m_pCheckTimeoutTimer.
    void OnTimer(const DispatchTimerRef& timer);

    // LumerixHandler_Delegate.
    // Called on the handler's scan queue; handled on the main queue.
    void lumerixStateDidChange(int state) override;
    void lumerixDidDiscoverItem(const QVLumerixItemRef& item) override;
    void lumerixClosestItemDidChange(const QVLumerixItemRef& item) override {}
    void lumerixItem(const QVLumerixItemRef& item, int status) override {}
    void lumerixOnError(int code) override {}
    void lumerixDidForgetItem(const QVLumerixItemRef& item) override;

    // Sender link.
    void performMenuAction(const MenuItemRef& item) override;
    void DeviceConnectAction(const MenuItemRef& sender);
    using ConnectOutcome = SenderConnector::ConnectOutcome;
    // The connect action on a receiver's own dictionary (no menu position involved): sent to the
    // running sender, or parked in `slot` and the sender launched. Used by the menu and by
    // requests from outside (D-Bus, the command line without a tray). userId: whose "Sharvane"
    // processes count as the sender (0: anyone's).
    static ConnectOutcome ConnectReceiver(const ReceiverDictionary& receiver, const Launcher& launcher,
                                          const ProcessLookup& processLookup, uint32_t userId,
                                          const SenderDelivery& delivery, PendingConnectionSlot& slot,
                                          int* launchStatus = nullptr, DeliveryDone done = nullptr);
    ConnectOutcome ConnectReceiver(const ReceiverDictionary& receiver);
    // Told on the main queue when the listed rows changed: a receiver came or went, the order
    // changed, or a name, address or code changed; not for a reading alone (null: nobody).
    void setReceiversObserver(std::function<void()> observer) { receiversObserver_ = std::move(observer); }
    void SendDataToOndrelTimer(const ConnectionInfo& userInfo);
    // The listener's thread body, run on the calling thread; false when it could not listen. The
    // launch starts it on its own thread already (unless the environment turns it off).
    bool ListenCmdFromSenderThread();
    uint64_t ParserCmd(const uint8_t* request, uint8_t* output, uint64_t outputLength);

    // State, for the desktop adapter and tests.
    bool connectFlag() const { return m_bConnect; }
    // True once StartScanBeacon got scanning going, until sleep, a stop or a state other than on.
    bool isScanning() const { return scanning_; }
    LumerixScanning* lumerix() const { return m_pLumerix.get(); }
    bool appIsClosing() const { return m_bAppIsClosing.load(); }
    PendingConnectionSlot& dictTargetDevice() { return m_pDictTargetDevice; }
    const StatusImageRef& normalIconImage() const { return m_pNormal_IconImage; }
    const StatusImageRef& normalDisableIconImage() const { return m_pNormal_Disable_IconImage; }
    const std::optional<QVariantList>& referenceTable() const { return referenceTables_.table(); }
    const std::vector<MenuItemRef>& menuList() const { return menu_.menuList(); }
    const QList<ReceiverDictionary>& discoveredDevice() const { return menu_.receivers(); }
    const std::vector<QVLumerixItemRef>& discoveredDeviceAry() const { return receivers_->items(); }
    const DispatchTimerRef& checkTimeoutTimer() const { return m_pCheckTimeoutTimer; }
    const MenuRef& statusMenu() const { return menu_.menu(); }
    const StatusItemRef& statusItem() const { return m_pStatusItem; }
    CommandListener* commandListener() const { return m_listener.get(); }

private:
    void centralStateChanged(int state);
    void showCentralState(int state);
    void notify(QString summary, QString body);
    std::vector<ReceiverToolTip::Line> toolTipLines() const;
    void notifyReceiversChanged() {
        if (receiversObserver_) receiversObserver_();
    }
    // The receiver list was refreshed: shown, and announced when its rows changed.
    void refreshList(bool rowsChanged);
    // The icon and tooltip for the receivers the menu shows.
    void showReceiverCount();

    ShellEnvironment env_;
    ReferenceTableStore referenceTables_;
    StatusMenuModel menu_{referenceTables_};
    // Tasks posted to the main queue from other threads hold it weakly. Declared before the
    // handler so that it outlives the handler's threads.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);

    bool m_bConnect = false;
    std::unique_ptr<LumerixScanning> m_pLumerix;
    std::atomic<bool> m_bAppIsClosing{false};
    PendingConnectionSlot m_pDictTargetDevice;
    std::unique_ptr<SenderConnector> connector_;
    StatusImageRef m_pNormal_IconImage;
    StatusImageRef m_pNormal_Disable_IconImage;
    std::unique_ptr<ReceiverList> receivers_;
    DispatchTimerRef m_pCheckTimeoutTimer;
    StatusItemRef m_pStatusItem;

    DispatchTimerRef menuRebuildTimer_;
    bool scanning_ = false;
    bool observingWorkspace_ = false;
    std::function<void()> receiversObserver_;
    bool listenerStarted_ = false;
    std::unique_ptr<ReceiverToolTip> toolTip_;
    // Declared last: its thread reads the slot and the closing flag above until it is joined.
    std::unique_ptr<CommandListener> m_listener;
};

}  // namespace lumerix
