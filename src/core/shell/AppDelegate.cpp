#include "shell/AppDelegate.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cstdlib>
#include <thread>

#include "log/Log.h"
#include "sender/GetPID.h"
#include "sender/MainController.h"
#include "shell/PathManager.h"
#include "shell/ReceiverOrder.h"
#include "shell/ReferenceTable.h"

namespace lumerix {

namespace {

const QString kKeyUUID = QStringLiteral("UUID");
const QString kKeyIP = QStringLiteral("IP");
const QString kKeyLoginCode = QStringLiteral("LoginCode");
const QString kKeyDevice = QStringLiteral("Device");
const QString kKeyDeviceName = QStringLiteral("DeviceName");
const QString kKeyWiFiSSID = QStringLiteral("WiFiSSID");
const QString kKeyWiFiKey = QStringLiteral("WiFiKey");

bool sameReceiver(const std::optional<QString>& a, const std::optional<QString>& b) {
    // Items without an identifier never match, so each one is listed on its own.
    return a && b && !a->isEmpty() && *a == *b;
}

// Items hand out copies of their own strings, so shared data settles most comparisons at once.
bool sameText(const std::optional<QString>& a, const std::optional<QString>& b) {
    if (a.has_value() != b.has_value()) return false;
    if (!a) return true;
    if (a->size() == b->size() && a->constData() == b->constData()) return true;
    return *a == *b;
}

}  // namespace

QByteArray AppDelegate::SenderLaunchCommand() {
#ifdef __APPLE__
    return QByteArray("open -b \"") + kSenderBundleIdentifier + '"';
#else
    return QByteArray("gtk-launch \"") + kSenderBundleIdentifier + '"';
#endif
}

AppDelegate::AppDelegate(ShellEnvironment env) : env_(std::move(env)) {
    if (!env_.clock) env_.clock = systemClock();
    if (!env_.bluetoothPowered) env_.bluetoothPowered = [] { return true; };
    if (!env_.launcher)
        env_.launcher = [](const QByteArray& command) { return std::system(command.constData()); };
    if (!env_.processLookup) env_.processLookup = &GetAllPIDsForProcessName;
    if (!env_.sleeper)
        env_.sleeper = [](std::chrono::microseconds pause) { std::this_thread::sleep_for(pause); };
    if (!env_.delivery) {
        // Up to 30 s per frame when the sender does not answer: never on the main thread.
        deliveryQueue_ = std::make_unique<ThreadQueue>("com.zemko.Lumerix.deliver", env_.clock);
        ThreadQueue* queue = deliveryQueue_.get();
        env_.delivery = [queue](QByteArray frame) {
            queue->async([frame = std::move(frame)] {
                MainController::SendDataToOndrel(reinterpret_cast<const uint8_t*>(frame.constData()),
                                                 static_cast<uint64_t>(frame.size()));
            });
        };
    }
    if (!env_.resourcePath) env_.resourcePath = PathManager::GetResourcePath();
    if (!env_.applicationSupportPath) env_.applicationSupportPath = PathManager::GetApplicationSupportPath();
    m_listener = std::make_unique<CommandListener>(m_pDictTargetDevice, m_bAppIsClosing,
                                                   env_.listenerPort.value_or(kSenderCommandPort));
}

AppDelegate::~AppDelegate() {
    if (m_pCheckTimeoutTimer) m_pCheckTimeoutTimer->cancel();
    m_pCheckTimeoutTimer.reset();
    if (menuRebuildTimer_) menuRebuildTimer_->cancel();
    if (observingWorkspace_ && env_.workspace) env_.workspace->removeObserver(this);
    if (m_pStatusItem) m_pStatusItem->setTarget(nullptr);
    if (m_pLumerix && m_pLumerix->delegate() == this) m_pLumerix->setDelegate(nullptr);
    m_listener.reset();
    deliveryQueue_.reset();
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

    m_pReferenceTable = QVariantList();
    m_pMenuList.clear();
    m_pDiscoveredDevice.clear();
    m_pDiscoveredDeviceAry.clear();

    // Aging goes on whatever the user is doing, menu open or alert up.
    if (m_pCheckTimeoutTimer) m_pCheckTimeoutTimer->cancel();
    m_pCheckTimeoutTimer = CreateDispatchTimer(
        env_.mainQueue, [this] { OnTimer(m_pCheckTimeoutTimer); }, kCheckTimeoutIntervalSeconds);
}

void AppDelegate::applicationDidFinishLaunching() {
    if (env_.application) env_.application->hide();

    if (!env_.bluetoothPowered()) {
        Alert alert;
        alert.messageText = QStringLiteral("Please turn on bluetooth");
        alert.informativeText = QStringLiteral("This application needs bluetooth access authority");
        alert.buttons = {QStringLiteral("OK")};
        alert.alertStyle = Alert::Warning;
        if (env_.application) {
            env_.application->runModal(alert);
            // Termination happens later from the event loop; set-up below still runs.
            env_.application->terminate();
        }
    }

    LoadReferenceTable();
    InitStatusBar();
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
    m_pReferenceTable.reset();
}

void AppDelegate::StartScanBeacon() {
    if (!m_pLumerix) return;
    bool started = m_pLumerix->scanForLumerixService(true);
    // The central reports its first state shortly after it is created; wait up to half a second.
    for (int retry = 0; !started && retry < kScanRetryCount; ++retry) {
        env_.sleeper(kScanRetryPause);
        started = m_pLumerix->scanForLumerixService(true);
    }
    m_pLumerix->setDelegate(this);
}

void AppDelegate::StopScanBeacon() {
    if (!m_pLumerix) return;
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

void AppDelegate::ShowAbout() {
    if (env_.application) env_.application->orderFrontStandardAboutPanel();
}

void AppDelegate::QuitApp() {
    m_bAppIsClosing = true;
    if (env_.application) env_.application->terminate();
}

// ---- Reference table ---------------------------------------------------------------------------

QString AppDelegate::ReferenceTableFolder() const {
    const QString support = env_.applicationSupportPath.value_or(QString());
    if (support.isEmpty()) return QString();
    return support + QLatin1String("/Tavik/Lumerix");
}

bool AppDelegate::LoadReferenceTable() {
    if (!m_pReferenceTable) m_pReferenceTable = QVariantList();
    const QString resources = env_.resourcePath.value_or(QString());
    const QString defaultPath = resources + QLatin1Char('/') + QLatin1String(kDefaultReferenceTableFileName);
    m_pDefaultReferenceTable.reset();
    if (!resources.isEmpty() && QFileInfo::exists(defaultPath)) {
        m_pDefaultReferenceTable = ReferenceTable::arrayWithContentsOfFile(defaultPath);
        if (!m_pDefaultReferenceTable) {
            Log::logf("LoadReferenceTable: %s is not a readable list; no default receivers",
                      qUtf8Printable(defaultPath));
        }
    }

    const QString folder = ReferenceTableFolder();
    if (folder.isEmpty() || !QFileInfo::exists(folder)) {
        if (folder.isEmpty() || !QDir().mkpath(folder)) {
            Log::logf("Creat Folder Fail : %s", qUtf8Printable(resources));
        }
    }

    const QString path =
        folder.isEmpty() ? QString() : folder + QLatin1Char('/') + QLatin1String(kReferenceTableFileName);
    referenceTableUnreadable_ = false;
    if (!path.isEmpty() && QFileInfo::exists(path)) {
        const auto saved = ReferenceTable::arrayWithContentsOfFile(path);
        if (!saved) {
            referenceTableUnreadable_ = true;
            Log::logf("LoadReferenceTable: %s is not a readable list; starting with an empty table",
                      qUtf8Printable(path));
        } else {
            m_pReferenceTable->append(*saved);
        }
    } else if (m_pDefaultReferenceTable) {
        m_pReferenceTable->append(*m_pDefaultReferenceTable);
    }
    m_pDefaultReferenceTable.reset();
    return true;
}

void AppDelegate::keepUnreadableReferenceTable(const QString& path) {
    if (!QFileInfo::exists(path)) {
        referenceTableUnreadable_ = false;
        return;
    }
    QString aside = path + QLatin1String(kUnreadableSuffix);
    for (int n = 1; QFileInfo::exists(aside); ++n) {
        aside = path + QLatin1String(kUnreadableSuffix) + QLatin1Char('.') + QString::number(n);
    }
    if (QFile::copy(path, aside)) {
        Log::logf("SaveReferenceTable: the unreadable %s is kept as %s", qUtf8Printable(path),
                  qUtf8Printable(aside));
        referenceTableUnreadable_ = false;
    } else {
        Log::logf("SaveReferenceTable: could not keep the unreadable %s aside", qUtf8Printable(path));
    }
}

bool AppDelegate::SaveReferenceTable() {
    const QString folder = ReferenceTableFolder();
    const QString path =
        folder.isEmpty() ? QString() : folder + QLatin1Char('/') + QLatin1String(kReferenceTableFileName);
    if (!m_pReferenceTable) return true;
    if (referenceTableUnreadable_ && !path.isEmpty()) {
        keepUnreadableReferenceTable(path);
        // Never overwrite what could not be read unless a copy of it exists.
        if (referenceTableUnreadable_) {
            Log::write(QStringLiteral("SaveReferenceTable writeToFile Fail"));
            return true;
        }
    }
    if (!ReferenceTable::writeToFile(*m_pReferenceTable, path)) {
        Log::write(QStringLiteral("SaveReferenceTable writeToFile Fail"));
    }
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
}

void AppDelegate::AddFixedMenuItems() {
    if (!m_pStatusMenu) return;
    if (m_pReferenceTable) {
        for (const QVariant& entry : *m_pReferenceTable) {
            const QVariant device = entry.toMap().value(kKeyDevice);
            std::optional<QString> title;
            if (device.isValid()) title = device.toString();
            auto item = MenuItem::initWithTitle(std::move(title), MenuAction::DeviceConnect, QString());
            m_pStatusMenu->addItem(item);
            m_pMenuList.push_back(std::move(item));
        }
    }
    m_pStatusMenu->addItem(MenuItem::separatorItem());
    m_pStatusMenu->addItem(
        MenuItem::initWithTitle(QStringLiteral("About"), MenuAction::ShowAbout, QString()));
    m_pStatusMenu->addItem(MenuItem::initWithTitle(QStringLiteral("Exit"), MenuAction::QuitApp, QString()));
}

void AppDelegate::UpdateMenuOfStatusBar() {
    // A dictionary depends on its item's four values only, so one whose values are unchanged is
    // shared from the last refresh instead of being built again.
    if (dictionaryCache_.size() > 2 * m_pDiscoveredDeviceAry.size() + 16) dictionaryCache_.clear();
    m_pDiscoveredDevice.clear();
    m_pDiscoveredDevice.reserve(static_cast<qsizetype>(m_pDiscoveredDeviceAry.size()));
    for (const QVLumerixItemRef& item : m_pDiscoveredDeviceAry) {
        QVLumerixItem::ConnectionDetails details = item->connectionDetails();
        CachedDictionary fresh{item->shortenedUUID(),
                               std::move(details.ipAddress),
                               std::move(details.loginCode),
                               std::move(details.receiverName),
                               {}};
        CachedDictionary& cached = dictionaryCache_[item.get()];
        if (cached.dict.isEmpty() || !sameText(cached.uuid, fresh.uuid) || !sameText(cached.ip, fresh.ip) ||
            !sameText(cached.loginCode, fresh.loginCode) || !sameText(cached.name, fresh.name)) {
            ReceiverDictionary& dict = fresh.dict;
            if (fresh.uuid) dict.insert(kKeyUUID, *fresh.uuid);
            if (fresh.ip) dict.insert(kKeyIP, *fresh.ip);
            if (fresh.loginCode) dict.insert(kKeyLoginCode, *fresh.loginCode);
            if (fresh.name) dict.insert(kKeyDevice, *fresh.name);
            cached = std::move(fresh);
        }
        m_pDiscoveredDevice.append(cached.dict);
    }
    UpdateMenu();
}

void AppDelegate::UpdateMenu() {
    m_pMenuList.clear();
    if (m_pStatusMenu) m_pStatusMenu->removeAllItems();
    AddFixedMenuItems();

    const qsizetype n = m_pDiscoveredDevice.size();
    if (n == 0) {
        if (m_pStatusItem) m_pStatusItem->setImage(m_pNormal_Disable_IconImage);
    } else {
        if (m_pStatusItem) m_pStatusItem->setImage(m_pNormal_IconImage);
        for (qsizetype i = 0; i < n; ++i) {
            const auto device = m_pDiscoveredDevice[i].constFind(kKeyDevice);
            if (device == m_pDiscoveredDevice[i].constEnd()) continue;  // no entry, and no closing up
            auto item = MenuItem::initWithTitle(*device, MenuAction::DeviceConnect, QString());
            if (m_pStatusMenu) m_pStatusMenu->insertItem(item, static_cast<int>(i));
            m_pMenuList.push_back(std::move(item));
        }
    }
    if (m_pStatusItem) m_pStatusItem->setMenu(m_pStatusMenu);
}

void AppDelegate::OnTimer(const DispatchTimerRef& timer) {
    if (!timer || timer != m_pCheckTimeoutTimer) return;
    if (m_pDiscoveredDeviceAry.empty()) return;
    const double nowMs = env_.clock->nowMs();
    bool removed = false;
    for (size_t i = m_pDiscoveredDeviceAry.size(); i-- > 0;) {
        const auto alive = m_pDiscoveredDeviceAry[i]->aliveDuration();
        if (alive && nowMs - *alive > kReceiverTimeoutMs) {
            m_pDiscoveredDeviceAry.erase(m_pDiscoveredDeviceAry.begin() + static_cast<std::ptrdiff_t>(i));
            removed = true;
        }
    }
    if (removed) notifyReceiversChanged();
}

void AppDelegate::lumerixDidDiscoverItem(const QVLumerixItemRef& item) {
    if (!item) return;
    // Entries with an identifier are unique in the list, so finding the very object first is
    // the same as finding the first entry with its identifier, without comparing strings.
    const std::optional<QString> uuid = item->shortenedUUID();
    const bool identified = uuid && !uuid->isEmpty();
    bool replaced = false;
    if (identified) {
        for (QVLumerixItemRef& entry : m_pDiscoveredDeviceAry) {
            if (entry == item) {
                replaced = true;
                break;
            }
        }
        for (size_t i = 0; !replaced && i < m_pDiscoveredDeviceAry.size(); ++i) {
            if (sameReceiver(m_pDiscoveredDeviceAry[i]->shortenedUUID(), uuid)) {
                m_pDiscoveredDeviceAry[i] = item;
                replaced = true;
            }
        }
    }
    if (!replaced) m_pDiscoveredDeviceAry.push_back(item);

    m_pDiscoveredDeviceAry = reorderBySignalStrength(std::move(m_pDiscoveredDeviceAry),
                                                     [](const QVLumerixItemRef& e) { return e->aveRssi(); });
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
    // Reference-table entries come first in m_pMenuList but have no receiver dictionary, so
    // their positions index the receivers; past the end there is nothing to connect to.
    if (position >= static_cast<size_t>(m_pDiscoveredDevice.size())) {
        Log::logf("DeviceConnectAction: no receiver at position %zu (%lld listed)", position,
                  static_cast<long long>(m_pDiscoveredDevice.size()));
        return;
    }
    ConnectReceiver(m_pDiscoveredDevice[static_cast<qsizetype>(position)]);
}

AppDelegate::ConnectOutcome AppDelegate::ConnectReceiver(const ReceiverDictionary& receiver) {
    return ConnectReceiver(receiver, env_.launcher, env_.processLookup, env_.delivery, m_pDictTargetDevice);
}

AppDelegate::ConnectOutcome AppDelegate::ConnectReceiver(const ReceiverDictionary& receiver,
                                                         const Launcher& launcher,
                                                         const ProcessLookup& processLookup,
                                                         const SenderDelivery& delivery,
                                                         PendingConnectionSlot& slot) {
    ConnectionInfo info;
    if (auto it = receiver.constFind(kKeyIP); it != receiver.constEnd()) info.insert(kKeyIP, *it);
    if (auto it = receiver.constFind(kKeyLoginCode); it != receiver.constEnd())
        info.insert(kKeyLoginCode, *it);
    if (auto it = receiver.constFind(kKeyDevice); it != receiver.constEnd()) {
        info.insert(kKeyDeviceName, *it);
        info.insert(kKeyWiFiSSID, *it);
    }
    if (auto it = receiver.constFind(kKeyWiFiKey); it != receiver.constEnd()) info.insert(kKeyWiFiKey, *it);

    int32_t pids[kProcessIdCapacity] = {};
    uint32_t count = 0;
    int error = 0;
    processLookup(kSenderProcessName, 0, pids, kProcessIdCapacity, &count, &error);

    if (count == 0) {
        // The sender asks for the receiver on the command listener once it is up. Parked before
        // the launch so that a sender quicker than the launcher's return still finds it.
        slot.park(std::move(info));
        launcher(SenderLaunchCommand());
        return ConnectOutcome::Launched;
    }
    return deliverFrame(info, delivery) ? ConnectOutcome::Sent : ConnectOutcome::NotSent;
}

void AppDelegate::SendDataToOndrelTimer(const ConnectionInfo& userInfo) {
    deliverFrame(userInfo, env_.delivery);
}

bool AppDelegate::deliverFrame(const ConnectionInfo& info, const SenderDelivery& delivery) {
    uint8_t buffer[kFrameBufferSize] = {};
    const uint64_t length = MainController::GeneralPacket(buffer, kFrameBufferSize, info);
    if (length == 0) {
        Log::write(
            QStringLiteral("DeviceConnectAction: the receiver's details do not fit a frame; nothing sent"));
        return false;
    }
    delivery(QByteArray(reinterpret_cast<const char*>(buffer), static_cast<qsizetype>(length)));
    return true;
}

bool AppDelegate::ListenCmdFromSenderThread() { return m_listener->ListenCmdFromSenderThread(); }

uint64_t AppDelegate::ParserCmd(const uint8_t* request, uint8_t* output, uint64_t outputLength) {
    return m_listener->ParserCmd(request, output, outputLength);
}

}  // namespace lumerix
