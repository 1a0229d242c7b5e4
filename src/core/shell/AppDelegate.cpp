#include "shell/AppDelegate.h"

#include <QCoreApplication>
#include <thread>

#include "log/Log.h"
#include "sender/MainController.h"
#include "shell/ReceiverRow.h"

namespace lumerix {

AppDelegate::AppDelegate(ShellEnvironment env)
    : env_(std::move(env)), referenceTables_(env_.resourcePath, env_.applicationSupportPath) {
    if (!env_.clock) env_.clock = systemClock();
    if (!env_.bluetoothPowered) env_.bluetoothPowered = [] { return true; };
    if (!env_.sleeper)
        env_.sleeper = [](std::chrono::microseconds pause) { std::this_thread::sleep_for(pause); };
    if (!env_.senderInstalled) env_.senderInstalled = [] { return true; };
    m_pDictTargetDevice.setClock(env_.clock);
    connector_ = std::make_unique<SenderConnector>(env_, m_pDictTargetDevice);
    m_listener = std::make_unique<CommandListener>(
        m_pDictTargetDevice, m_bAppIsClosing, env_.listenerPort.value_or(kSenderCommandPort), env_.peers);
    receivers_ = std::make_unique<ReceiverList>(env_.mainQueue,
                                                [this](bool rowsChanged) { refreshList(rowsChanged); });
}

AppDelegate::~AppDelegate() {
    receivers_.reset();
    toolTip_.reset();
    if (m_pCheckTimeoutTimer) m_pCheckTimeoutTimer->cancel();
    m_pCheckTimeoutTimer.reset();
    if (menuRebuildTimer_) menuRebuildTimer_->cancel();
    if (observingWorkspace_ && env_.workspace) env_.workspace->removeObserver(this);
    if (m_pStatusItem) m_pStatusItem->setTarget(nullptr);
    if (m_pLumerix && m_pLumerix->delegate() == this) m_pLumerix->setDelegate(nullptr);
    m_listener.reset();
}

// ---- Lifecycle ---------------------------------------------------------------------------------

void AppDelegate::awakeFromNib() {
    m_bConnect = true;
    m_pLumerix.reset();
    m_bAppIsClosing = false;
    m_pDictTargetDevice.take();
    m_pNormal_IconImage.reset();
    m_pNormal_Disable_IconImage.reset();

    if (env_.makeHandler) m_pLumerix = env_.makeHandler();

    referenceTables_.startEmpty();
    menu_.reset();
    receivers_->clear();

    // Aging goes on whatever the user is doing, menu open or alert up.
    if (m_pCheckTimeoutTimer) m_pCheckTimeoutTimer->cancel();
    m_pCheckTimeoutTimer = CreateDispatchTimer(
        env_.mainQueue, [this] { OnTimer(m_pCheckTimeoutTimer); }, kCheckTimeoutIntervalSeconds);
}

void AppDelegate::applicationDidFinishLaunching() {
    if (env_.application) env_.application->hide();

    if (!env_.bluetoothPowered() && env_.quietLaunch) {
        // At login Bluetooth may come later (or the bus not be up yet): wait in the tray, whose
        // tooltip says why nothing is listed.
        Log::write(QStringLiteral("Bluetooth is not on at login: waiting for it in the tray"));
    } else if (!env_.bluetoothPowered()) {
        Alert alert;
        alert.messageText = QCoreApplication::translate("AppDelegate", "Please turn on bluetooth");
        alert.informativeText =
            QCoreApplication::translate("AppDelegate", "This application needs bluetooth access authority");
        alert.buttons = {QCoreApplication::translate("AppDelegate", "OK")};
        alert.alertStyle = Alert::Warning;
        if (env_.application) {
            env_.application->runModal(alert);
            // Termination happens later from the event loop; set-up below still runs.
            env_.application->terminate();
        }
    }

    LoadReferenceTable();
    InitStatusBar();
    // At login the panel may start after us; the item appears when it does, without a bubble.
    if (env_.statusBar && !env_.statusBar->isTrayAvailable() && !env_.quietLaunch) {
        notify(QCoreApplication::translate("AppDelegate", "No tray on this desktop"),
               QCoreApplication::translate(
                   "AppDelegate",
                   "Lumerix appears once a tray runs (on GNOME: the AppIndicator extension). Meanwhile "
                   "\"lumerix --scan\" lists the receivers in a terminal."));
    }
    StartScanBeacon();
    UpdateMenuOfStatusBar();

    // Not while the menu is open: the entries must not move under the user's pointer.
    if (menuRebuildTimer_) menuRebuildTimer_->cancel();
    menuRebuildTimer_ = CreateDispatchTimer(
        env_.mainQueue,
        [this] {
            if (m_pStatusItem && m_pStatusItem->isMenuOpen()) return;
            UpdateMenuOfStatusBar();
        },
        kMenuRebuildIntervalSeconds);

    if (env_.listenerPort && !listenerStarted_) {
        m_listener->start();
        listenerStarted_ = true;
    }

    if (env_.workspace && !observingWorkspace_) {
        env_.workspace->addObserver(this);
        observingWorkspace_ = true;
    }
}

void AppDelegate::applicationWillTerminate() {
    SaveReferenceTable();
    StopScanBeacon();
    m_pLumerix.reset();
    referenceTables_.drop();
    menu_.referencesChanged();
}

void AppDelegate::StartScanBeacon() {
    if (!m_pLumerix) return;
    bool started = m_pLumerix->scanForLumerixService(true);
    // The central reports its first state shortly after it is created; wait up to half a second.
    for (int retry = 0; !started && retry < QVLumerixHandler::kScanRetryCount; ++retry) {
        env_.sleeper(QVLumerixHandler::kScanRetryPause);
        started = m_pLumerix->scanForLumerixService(true);
    }
    scanning_ = started;
    m_pLumerix->setDelegate(this);
    // Reports made before the delegate was set are not repeated: read the state once.
    if (const std::optional<int> state = m_pLumerix->centralState()) showCentralState(*state);
}

void AppDelegate::showCentralState(int state) {
    const ReceiverToolTip::Radio radio = ReceiverToolTip::radioFor(state);
    if (toolTip_) toolTip_->setRadio(radio);
    if (m_pStatusItem)
        m_pStatusItem->setNeedsAttention(radio != ReceiverToolTip::Radio::On &&
                                         radio != ReceiverToolTip::Radio::Checking);
}

void AppDelegate::StopScanBeacon() {
    if (!m_pLumerix) return;
    scanning_ = false;
    m_pLumerix->setDelegate(nullptr);
    m_pLumerix->scanForLumerixService(false);
}

void AppDelegate::receiveSleepNote() {
    if (m_pLumerix) StopScanBeacon();
    m_pLumerix.reset();
}

void AppDelegate::receiveWakeNote() {
    if (!m_pLumerix && env_.makeHandler) m_pLumerix = env_.makeHandler();
    StartScanBeacon();
}

void AppDelegate::lumerixStateDidChange(int state) {
    // The central's queue: the shell's state lives on the main queue.
    env_.mainQueue->async([this, alive = std::weak_ptr<bool>(alive_), state] {
        if (alive.lock()) centralStateChanged(state);
    });
}

void AppDelegate::centralStateChanged(int state) {
    showCentralState(state);
    // Discovery ends with the power, the adapter or bluetoothd, and so does the handler's rescan
    // cycle: only a new start brings the receivers back.
    if (state != BleStatePoweredOn) {
        scanning_ = false;
        return;
    }
    // Asleep (no handler), closing or already scanning: nothing to start.
    if (scanning_ || !m_pLumerix || m_bAppIsClosing) return;
    Log::write(QStringLiteral("Bluetooth is on again: scanning for receivers"));
    StartScanBeacon();
}

void AppDelegate::ShowAbout() {
    if (env_.application) env_.application->orderFrontStandardAboutPanel();
}

void AppDelegate::QuitApp() {
    m_bAppIsClosing = true;
    if (env_.application) env_.application->terminate();
}

// ---- Reference table ---------------------------------------------------------------------------

QString AppDelegate::ReferenceTableFolder() const { return referenceTables_.folder(); }

bool AppDelegate::LoadReferenceTable() {
    referenceTables_.load();
    menu_.referencesChanged();
    return true;
}

bool AppDelegate::SaveReferenceTable() {
    referenceTables_.save();
    return true;
}

// ---- Receiver list and menu --------------------------------------------------------------------

void AppDelegate::InitStatusBar() {
    menu_.createMenu();

    StatusBar* bar = env_.statusBar.get();
    if (!bar) return;
    m_pNormal_IconImage = bar->imageNamed(QStringLiteral("Normal_Icon"));
    if (m_pNormal_IconImage) m_pNormal_IconImage->setTemplate(true);
    m_pNormal_Disable_IconImage = bar->imageNamed(QStringLiteral("Normal_Disable_Icon"));
    if (m_pNormal_Disable_IconImage) m_pNormal_Disable_IconImage->setTemplate(true);

    m_pStatusItem = bar->statusItemWithLength(kVariableStatusItemLength);
    if (!m_pStatusItem) return;
    m_pStatusItem->setTarget(this);
    m_pStatusItem->setImage(m_pNormal_Disable_IconImage);
    if (!toolTip_) {
        toolTip_ = std::make_unique<ReceiverToolTip>(
            env_.mainQueue, [this] { return toolTipLines(); },
            [this](const QString& text) {
                if (m_pStatusItem) m_pStatusItem->setToolTip(text);
            });
    }
}

std::vector<ReceiverToolTip::Line> AppDelegate::toolTipLines() const {
    std::vector<ReceiverToolTip::Line> lines;
    lines.reserve(receivers_->items().size());
    for (const QVLumerixItemRef& item : receivers_->items()) {
        ReceiverRow row = ReceiverRow::fromItem(*item);
        if (!row.name) continue;  // not in the menu either
        lines.push_back({std::move(*row.name), row.rssi, row.lastSeenMs});
    }
    return lines;
}

void AppDelegate::AddFixedMenuItems() { menu_.addFixedItems(); }

void AppDelegate::UpdateMenuOfStatusBar() {
    menu_.setReceivers(receivers_->items());
    showReceiverCount();
}

void AppDelegate::UpdateMenu() {
    menu_.update();
    showReceiverCount();
}

void AppDelegate::showReceiverCount() {
    if (m_pStatusItem) {
        const bool none = menu_.receivers().isEmpty();
        m_pStatusItem->setImage(none ? m_pNormal_Disable_IconImage : m_pNormal_IconImage);
        m_pStatusItem->setMenu(menu_.menu());
    }
    if (toolTip_) toolTip_->setNeedsUpdate();
}

void AppDelegate::OnTimer(const DispatchTimerRef& timer) {
    if (!timer || timer != m_pCheckTimeoutTimer) return;
    if (receivers_->items().empty()) return;
    const std::vector<QVLumerixItemRef> aged = receivers_->removeAged(env_.clock->nowMs());
    if (aged.empty()) return;
    // Not heard for a while: the handler need not keep them (nor their decay timers) either.
    if (m_pLumerix) {
        for (const QVLumerixItemRef& item : aged) m_pLumerix->forgetItem(item);
    }
    notifyReceiversChanged();
}

void AppDelegate::lumerixDidDiscoverItem(const QVLumerixItemRef& item) { receivers_->add(item); }

void AppDelegate::lumerixDidForgetItem(const QVLumerixItemRef& item) { receivers_->remove(item); }

void AppDelegate::refreshList(bool rowsChanged) {
    UpdateMenuOfStatusBar();
    if (rowsChanged) notifyReceiversChanged();
}

// ---- Sender link -------------------------------------------------------------------------------

void AppDelegate::performMenuAction(const MenuItemRef& item) {
    if (!item) return;
    switch (item->action()) {
        case MenuAction::DeviceConnect:
            DeviceConnectAction(item);
            break;
        case MenuAction::ShowAbout:
            ShowAbout();
            break;
        case MenuAction::QuitApp:
            QuitApp();
            break;
        case MenuAction::None:
            break;
    }
}

void AppDelegate::DeviceConnectAction(const MenuItemRef& sender) {
    size_t position = 0;
    const ReceiverDictionary* receiver = menu_.receiverFor(sender, &position);
    if (!receiver) {
        Log::logf("DeviceConnectAction: no receiver at position %zu (%lld listed)", position,
                  static_cast<long long>(menu_.receivers().size()));
        return;
    }
    ConnectReceiver(*receiver);
}

AppDelegate::ConnectOutcome AppDelegate::ConnectReceiver(const ReceiverDictionary& receiver) {
    return connector_->connect(receiver);
}

AppDelegate::ConnectOutcome AppDelegate::ConnectReceiver(const ReceiverDictionary& receiver,
                                                         const Launcher& launcher,
                                                         const ProcessLookup& processLookup, uint32_t userId,
                                                         const SenderDelivery& delivery,
                                                         PendingConnectionSlot& slot, int* launchStatus,
                                                         DeliveryDone done) {
    return SenderConnector::connect(receiver, launcher, processLookup, userId, delivery, slot, launchStatus,
                                    std::move(done));
}

void AppDelegate::SendDataToOndrelTimer(const ConnectionInfo& userInfo) { connector_->resend(userInfo); }

void AppDelegate::notify(QString summary, QString body) {
    if (env_.notifier) env_.notifier->notify({std::move(summary), std::move(body), {}});
}

bool AppDelegate::ListenCmdFromSenderThread() { return m_listener->ListenCmdFromSenderThread(); }

uint64_t AppDelegate::ParserCmd(const uint8_t* request, uint8_t* output, uint64_t outputLength) {
    return m_listener->ParserCmd(request, output, outputLength);
}

}  // namespace lumerix
