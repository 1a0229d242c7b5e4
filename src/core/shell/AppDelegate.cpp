#include "shell/AppDelegate.h"

#include <QCoreApplication>
#include <thread>

#include "log/Log.h"
#include "sender/MainController.h"

namespace lumerix {

namespace {

const QString kKeyUUID = QStringLiteral("UUID");
const QString kKeyIP = QStringLiteral("IP");
const QString kKeyLoginCode = QStringLiteral("LoginCode");
const QString kKeyDevice = QStringLiteral("Device");

// Items hand out copies of their own strings, so shared data settles most comparisons at once.
bool sameText(const std::optional<QString>& a, const std::optional<QString>& b) {
    if (a.has_value() != b.has_value()) return false;
    if (!a) return true;
    if (a->size() == b->size() && a->constData() == b->constData()) return true;
    return *a == *b;
}

// Same object, told by its control block: a weak reference keeps that block, so no other item
// can take its place at the same address.
bool sameObject(const std::weak_ptr<QVLumerixItem>& seen, const QVLumerixItemRef& item) {
    return !seen.owner_before(item) && !item.owner_before(seen);
}

}  // namespace

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
    receivers_ = std::make_unique<ReceiverList>(env_.mainQueue, [this] { refreshList(); });
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
    m_pMenuList.clear();
    m_pDiscoveredDevice.clear();
    receivers_->clear();
    fixedItemsStale_ = true;
    shownRows_.clear();
    receiverTitles_.clear();
    receiverItems_.clear();

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
    fixedItemsStale_ = true;
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
    fixedItemsStale_ = true;
    return true;
}

bool AppDelegate::SaveReferenceTable() {
    referenceTables_.save();
    return true;
}

// ---- Receiver list and menu --------------------------------------------------------------------

void AppDelegate::InitStatusBar() {
    m_pStatusMenu = std::make_shared<Menu>(QStringLiteral("Lumerix"));
    AddFixedMenuItems();

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
        std::optional<QString> name = item->receiverName();
        if (!name) continue;  // not in the menu either
        lines.push_back({std::move(*name), item->aveRssi(), item->aliveDuration()});
    }
    return lines;
}

std::vector<MenuItemRef> AppDelegate::makeFixedMenuItems() const {
    std::vector<MenuItemRef> items;
    if (const auto& table = referenceTables_.table()) {
        items.reserve(static_cast<size_t>(table->size()) + 3);
        for (const QVariant& entry : *table) {
            const QVariant device = entry.toMap().value(kKeyDevice);
            std::optional<QString> title;
            if (device.isValid()) title = device.toString();
            items.push_back(MenuItem::initWithTitle(std::move(title), MenuAction::DeviceConnect, QString()));
        }
    }
    items.push_back(MenuItem::separatorItem());
    items.push_back(MenuItem::initWithTitle(QCoreApplication::translate("AppDelegate", "About"),
                                            MenuAction::ShowAbout, QString()));
    items.push_back(MenuItem::initWithTitle(QCoreApplication::translate("AppDelegate", "Exit"),
                                            MenuAction::QuitApp, QString()));
    return items;
}

void AppDelegate::AddFixedMenuItems() {
    if (!m_pStatusMenu) return;
    fixedItems_ = makeFixedMenuItems();
    fixedReferenceCount_ = fixedItems_.size() - 3;
    fixedItemsStale_ = false;
    for (size_t i = 0; i < fixedItems_.size(); ++i) {
        m_pStatusMenu->addItem(fixedItems_[i]);
        if (i < fixedReferenceCount_) m_pMenuList.push_back(fixedItems_[i]);
    }
}

void AppDelegate::UpdateMenuOfStatusBar() {
    // A dictionary depends on its item's four values only: a row showing the same item at the same
    // details revision as last time is left as it is, and an item that moved rows shares the
    // dictionary built for it before.
    const std::vector<QVLumerixItemRef>& listed = receivers_->items();
    const size_t n = listed.size();
    if (dictionaryCache_.size() > 2 * n + 16) dictionaryCache_.clear();
    m_pDiscoveredDevice.resize(static_cast<qsizetype>(n));
    receiverTitles_.resize(n);
    shownRows_.resize(n);
    for (size_t i = 0; i < n; ++i) {
        const QVLumerixItemRef& item = listed[i];
        const uint64_t revision = item->detailsRevision();
        ShownRow& row = shownRows_[i];
        if (sameObject(row.item, item) && row.revision == revision) continue;

        CachedDictionary& cached = dictionaryCache_[item.get()];
        if (!sameObject(cached.item, item) || cached.revision != revision) {
            QVLumerixItem::ConnectionDetails details = item->connectionDetails();
            const std::optional<QString> uuid = item->shortenedUUID();
            ReceiverDictionary dict;
            if (uuid) dict.insert(kKeyUUID, *uuid);
            if (details.ipAddress) dict.insert(kKeyIP, *details.ipAddress);
            if (details.loginCode) dict.insert(kKeyLoginCode, *details.loginCode);
            if (details.receiverName) dict.insert(kKeyDevice, *details.receiverName);
            cached = {item, revision, std::move(details.receiverName), std::move(dict)};
        }
        m_pDiscoveredDevice[static_cast<qsizetype>(i)] = cached.dict;
        // The "Device" value of the dictionary, without looking it up again.
        receiverTitles_[i] = cached.name;
        row = {item, revision};
    }
    UpdateMenu();
}

void AppDelegate::UpdateMenu() {
    // The menu shows the receivers that have a name at the rows of their list positions, the fixed
    // entries filling the rows between them in order, and receivers past the fixed entries last:
    // the same rows as inserting each named receiver at its list position into the fixed menu.
    const auto n = static_cast<size_t>(m_pDiscoveredDevice.size());
    receiverTitles_.resize(n);
    bool changed = fixedItemsStale_ || receiverItems_.size() != n;
    if (fixedItemsStale_ && m_pStatusMenu) {
        fixedItems_ = makeFixedMenuItems();
        fixedReferenceCount_ = fixedItems_.size() - 3;
        fixedItemsStale_ = false;
    }
    receiverItems_.resize(n);
    size_t named = 0;
    for (size_t i = 0; i < n; ++i) {
        const std::optional<QString>& title = receiverTitles_[i];
        MenuItemRef& entry = receiverItems_[i];
        // Past the row limit a named receiver is left out like an unnamed one.
        const bool shown = title && named < kMaxReceiverRows;
        if (shown) ++named;
        if (!shown) {
            changed = changed || entry != nullptr;
            entry.reset();
        } else if (!entry || !sameText(entry->title(), title)) {
            entry = MenuItem::initWithTitle(*title, MenuAction::DeviceConnect, QString());
            changed = true;
        }
    }

    if (changed) {
        // Reference entries first, then the named receivers in list order: DeviceConnectAction
        // indexes the receivers with positions in this list.
        m_pMenuList.clear();
        const size_t references = m_pStatusMenu ? fixedReferenceCount_ : 0;
        m_pMenuList.insert(m_pMenuList.end(), fixedItems_.begin(),
                           fixedItems_.begin() + static_cast<std::ptrdiff_t>(references));
        for (const MenuItemRef& entry : receiverItems_) {
            if (entry) m_pMenuList.push_back(entry);
        }
        if (m_pStatusMenu) layOutMenuRows();
    }

    if (m_pStatusItem) {
        m_pStatusItem->setImage(n == 0 ? m_pNormal_Disable_IconImage : m_pNormal_IconImage);
        m_pStatusItem->setMenu(m_pStatusMenu);
    }
    if (toolTip_) toolTip_->setNeedsUpdate();
}

void AppDelegate::layOutMenuRows() {
    const size_t n = receiverItems_.size();
    rows_.clear();
    size_t fixed = 0;
    size_t next = 0;
    for (;;) {
        while (next < n && !receiverItems_[next]) ++next;
        const bool receiverRow = next < n && next == rows_.size();
        if (!receiverRow && fixed < fixedItems_.size()) {
            rows_.push_back(fixedItems_[fixed++]);
        } else if (next < n) {
            rows_.push_back(receiverItems_[next++]);
        } else {
            break;
        }
    }
    m_pStatusMenu->setItems(rows_);
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

void AppDelegate::refreshList() {
    UpdateMenuOfStatusBar();
    notifyReceiversChanged();
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
    for (size_t i = 0; i < m_pMenuList.size(); ++i) {
        if (m_pMenuList[i] == sender) {
            position = i;
            break;
        }
    }
    // Deliberate, as designed: the position in m_pMenuList, where reference-table entries come
    // first, indexes the receiver list, which has no reference entries. With references listed,
    // a row therefore connects to a receiver further down; past the end nothing happens.
    if (position >= static_cast<size_t>(m_pDiscoveredDevice.size())) {
        Log::logf("DeviceConnectAction: no receiver at position %zu (%lld listed)", position,
                  static_cast<long long>(m_pDiscoveredDevice.size()));
        return;
    }
    ConnectReceiver(m_pDiscoveredDevice[static_cast<qsizetype>(position)]);
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
