#include "receiver/QVLumerixHandler.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dispatch/ThreadQueue.h"
#include "log/Log.h"
#include "receiver/BoundedText.h"
#include "receiver/DesCfb.h"
#include "receiver/LumerixKeys.h"
#include "receiver/SignalStrength.h"

namespace lumerix {
namespace {

const QString kLocalNameLX = QStringLiteral("LX");

// While the evaluation queue works through a batch of advertisements: where its main-queue
// notifications gather.
thread_local std::vector<std::function<void()>>* mainBatch = nullptr;
constexpr int kPlaintextCapacity = 256;

std::mutex& sharedMutex() {
    static std::mutex m;
    return m;
}
HandlerEnvironment& sharedEnvironment() {
    static HandlerEnvironment env;
    return env;
}

// Writes the zero-terminated string at `src` (at most `srcCapacity` bytes) into `dest` with at most
// `limit - 1` characters and a terminator, like snprintf("%s") with size `limit`.
void boundedCopy(char* dest, size_t limit, const uint8_t* src, size_t srcCapacity) {
    if (limit == 0) return;
    size_t n = strnlen(reinterpret_cast<const char*>(src), srcCapacity);
    if (n > limit - 1) n = limit - 1;
    std::memcpy(dest, src, n);
    dest[n] = '\0';
}

// An absent name counts as equal to anything, so nothing is ever replaced by no name.
bool namesDiffer(const std::optional<QString>& candidate, const std::optional<QString>& current) {
    if (!candidate) return false;
    if (!current) return true;
    return candidate->compare(*current, Qt::CaseInsensitive) != 0;
}

}  // namespace

// --- creation ---------------------------------------------------------------------------------

std::shared_ptr<QVLumerixHandler> QVLumerixHandler::create(HandlerEnvironment env) {
    // A queued block may hold the last reference for a moment. Tearing the handler down there would
    // make a queue join its own thread, so in that case the teardown moves to the main queue.
    auto raw = std::make_unique<QVLumerixHandler>(std::move(env));
    return std::shared_ptr<QVLumerixHandler>(raw.release(), [](QVLumerixHandler* handler) {
        // Once shut down nothing of the handler runs on its queues, and the main queue may be
        // gone already: not a queue is asked anything.
        if (handler->shutDown_.load()) {
            delete handler;
            return;
        }
        DispatchQueue* main = handler->env_.mainQueue;
        const bool onOwnQueue = (handler->scanningQueue_ && handler->scanningQueue_->isCurrent()) ||
                                (handler->evaluatingQueue_ && handler->evaluatingQueue_->isCurrent());
        if (onOwnQueue && main && !main->isCurrent()) {
            main->async([handler] { delete handler; });
        } else {
            delete handler;
        }
    });
}

void QVLumerixHandler::setSharedEnvironment(HandlerEnvironment env) {
    std::lock_guard lock(sharedMutex());
    sharedEnvironment() = std::move(env);
}

std::shared_ptr<QVLumerixHandler> QVLumerixHandler::sharedHandler() {
    static std::once_flag once;
    static std::shared_ptr<QVLumerixHandler> instance;
    std::call_once(once, [] {
        HandlerEnvironment env;
        {
            std::lock_guard lock(sharedMutex());
            env = sharedEnvironment();
        }
        instance = create(std::move(env));
    });
    return instance;
}

QVLumerixHandler::QVLumerixHandler(HandlerEnvironment env) : env_(std::move(env)) {
    if (!env_.clock) env_.clock = systemClock();
    if (!env_.makeQueue) {
        auto clock = env_.clock;
        env_.makeQueue = [clock](const std::string& label) -> std::unique_ptr<DispatchQueue> {
            return std::make_unique<ThreadQueue>(label, clock);
        };
    }
    scanningQueue_ = env_.makeQueue(kScanQueueLabel);
    evaluatingQueue_ = env_.makeQueue(kEvaluateQueueLabel);
    if (env_.makeCentral) cbCMOwner_ = env_.makeCentral(this, scanningQueue_.get());
    cbCM_.store(cbCMOwner_.get(), std::memory_order_release);
    if (!cbCMOwner_) Log::logf("QVLumerixHandler: no Bluetooth central available; scanning stays off");
}

QVLumerixHandler::~QVLumerixHandler() {
    shutDown();
    // Items may outlive the handler (the shell keeps them); their decay timers must not point at
    // the evaluation queue that is now gone.
    std::vector<QVLumerixItemRef> items;
    {
        std::lock_guard lock(itemLock_);
        for (const auto& weak : createdItems_) {
            if (auto item = weak.lock()) items.push_back(std::move(item));
        }
        createdItems_.clear();
        discoveredDeviceInfo_.clear();
    }
    for (const auto& item : items) {
        GCDTimer::cancelDispatchedTimer(item->decayingGCDTimer());
        item->setDecayingGCDTimer(nullptr);
        item->setDecayingQueue(nullptr);
    }
}

void QVLumerixHandler::shutDown() {
    const bool onOwnQueue = (scanningQueue_ && scanningQueue_->isCurrent()) ||
                            (evaluatingQueue_ && evaluatingQueue_->isCurrent());
    if (onOwnQueue) {
        // A queue cannot join its own thread; the owner's later call (or the deleter's hop to the
        // main queue) finishes the job.
        Log::logf("QVLumerixHandler: shut down from its own queue; left to its owner");
        return;
    }
    if (shutDown_.exchange(true)) return;
    setDelegate(nullptr);
    cancelRescan();
    // The central goes first so no callback arrives on a half-stopped handler. A central's
    // destructor waits for a callback it is running, and callbacks that start later see no
    // central.
    cbCM_.store(nullptr, std::memory_order_release);
    cbCMOwner_.reset();
    // Joined: the task running now finishes, queued ones (decay ticks included) are dropped.
    scanningQueue_.reset();
    evaluatingQueue_.reset();
}

// --- scanning ---------------------------------------------------------------------------------

bool QVLumerixHandler::scanForLumerixService(bool start) {
    BleCentral* central = cbCM();
    if (mCurrentState() != BleStatePoweredOn || !central) return false;
    cancelRescan();
    if (start) {
        resetClosestItem();
        startScanning(*central);
    } else {
        central->stopScan();
        clearScannedResult();
    }
    return true;
}

void QVLumerixHandler::rescan() {
    BleCentral* central = cbCM();
    if (mCurrentState() != BleStatePoweredOn || !central) return;
    central->stopScan();
    startScanning(*central);
}

void QVLumerixHandler::startScanning(BleCentral& central) {
    central.scanForPeripherals(true);
    scheduleRescan();
}

void QVLumerixHandler::scheduleRescan() {
    DispatchQueue* queue = DispatchQueue::current();
    if (!queue) queue = env_.mainQueue;
    if (!queue) {
        Log::logf("QVLumerixHandler: no queue to schedule the periodic rescan on");
        return;
    }
    std::weak_ptr<QVLumerixHandler> weak = weak_from_this();
    TaskHandle handle = queue->after(kRescanIntervalMs, [weak] {
        if (auto self = weak.lock()) self->rescan();
    });
    TaskHandle previous;
    {
        std::lock_guard lock(rescanMutex_);
        previous = std::exchange(rescanHandle_, std::move(handle));
    }
    if (previous) previous->cancel();
}

void QVLumerixHandler::cancelRescan() {
    TaskHandle previous;
    {
        std::lock_guard lock(rescanMutex_);
        previous = std::move(rescanHandle_);
    }
    if (previous) previous->cancel();
}

void QVLumerixHandler::clearScannedResult() {
    disconnectCurrentItem();
    resetClosestItem();
    QHash<QString, QVLumerixItemRef> old;
    {
        std::lock_guard lock(itemLock_);
        old.swap(discoveredDeviceInfo_);
    }
    // `old` releases the items outside the lock.
}

// --- central callbacks ------------------------------------------------------------------------

void QVLumerixHandler::centralManagerDidUpdateState(int state) { triggerBLEStateDidChange(state); }

void QVLumerixHandler::centralManagerDidDiscoverPeripheral(const BlePeripheralRef& peripheral,
                                                           const AdvertisementData& advertisementData,
                                                           double rssi) {
    if (!peripheral || !advertisementData.localName || *advertisementData.localName != kLocalNameLX) return;
    if (!evaluatingQueue_) return;  // shut down
    std::weak_ptr<QVLumerixHandler> weak = weak_from_this();
    evaluatingQueue_->async([weak, peripheral, advertisementData, rssi] {
        if (auto self = weak.lock()) self->evaluateAdvertisement(peripheral, advertisementData, rssi);
    });
}

void QVLumerixHandler::centralManagerDidDiscoverPeripherals(const std::vector<BleDiscovery>& batch) {
    std::vector<BleDiscovery> named;
    for (const BleDiscovery& d : batch) {
        if (d.peripheral && d.advertisementData.localName && *d.advertisementData.localName == kLocalNameLX)
            named.push_back(d);
    }
    if (named.empty() || !evaluatingQueue_) return;
    std::weak_ptr<QVLumerixHandler> weak = weak_from_this();
    evaluatingQueue_->async([weak, named = std::move(named)] {
        auto self = weak.lock();
        if (!self) return;
        // Main-queue notifications of the whole batch leave together, in order.
        std::vector<std::function<void()>> toMain;
        mainBatch = &toMain;
        for (const BleDiscovery& d : named)
            self->evaluateAdvertisement(d.peripheral, d.advertisementData, d.rssi);
        mainBatch = nullptr;
        if (toMain.empty()) return;
        self->dispatchToMainThreadIfNeccessary([blocks = std::move(toMain)] {
            for (const auto& block : blocks) block();
        });
    });
}

void QVLumerixHandler::centralManagerDidForgetPeripheral(const BlePeripheralRef& peripheral) {
    DispatchQueue* queue = evaluatingQueue_.get();
    if (!peripheral || !queue) return;
    std::weak_ptr<QVLumerixHandler> weak = weak_from_this();
    queue->async([weak, key = peripheral->identifier()] {
        if (auto self = weak.lock()) self->dropItem(key, nullptr);
    });
}

void QVLumerixHandler::forgetItem(const QVLumerixItemRef& item) {
    DispatchQueue* queue = evaluatingQueue_.get();
    if (!item || !item->peripheral() || !queue || shutDown_.load()) return;
    std::weak_ptr<QVLumerixHandler> weak = weak_from_this();
    queue->async([weak, key = item->peripheral()->identifier(), item] {
        if (auto self = weak.lock()) self->dropItem(key, item);
    });
}

size_t QVLumerixHandler::itemCount() {
    std::lock_guard lock(itemLock_);
    return static_cast<size_t>(discoveredDeviceInfo_.size());
}

void QVLumerixHandler::dropItem(const QString& key, const QVLumerixItemRef& item) {
    QVLumerixItemRef dropped;
    {
        std::lock_guard lock(itemLock_);
        const auto it = discoveredDeviceInfo_.find(key);
        if (it == discoveredDeviceInfo_.end() || (item && it.value() != item)) return;
        dropped = it.value();
        discoveredDeviceInfo_.erase(it);
    }
    itemsDropped({std::move(dropped)});
}

void QVLumerixHandler::evictWeakestLocked(std::vector<QVLumerixItemRef>& evicted,
                                          const QVLumerixItemRef& closest,
                                          const QVLumerixItemRef& connected) {
    // Strength as the menu orders by; no valid reading counts as weakest, and among equals the
    // one heard longest ago goes. The closest and the connected receiver stay.
    auto weakest = discoveredDeviceInfo_.end();
    double weakestRssi = 0;
    double weakestHeard = 0;
    for (auto it = discoveredDeviceInfo_.begin(); it != discoveredDeviceInfo_.end(); ++it) {
        const QVLumerixItemRef& candidate = it.value();
        if (candidate == closest || candidate == connected) continue;
        const double rssi = candidate->isValid() ? candidate->aveRssi() : -1000.0;
        const double heard = candidate->discoveredTimeStamp();
        if (weakest == discoveredDeviceInfo_.end() || rssi < weakestRssi ||
            (rssi == weakestRssi && heard < weakestHeard)) {
            weakest = it;
            weakestRssi = rssi;
            weakestHeard = heard;
        }
    }
    if (weakest == discoveredDeviceInfo_.end()) return;
    evicted.push_back(weakest.value());
    discoveredDeviceInfo_.erase(weakest);
}

void QVLumerixHandler::itemsDropped(std::vector<QVLumerixItemRef> items) {
    for (const QVLumerixItemRef& item : items) {
        GCDTimer::cancelDispatchedTimer(item->decayingGCDTimer());
        item->setDecayingGCDTimer(nullptr);
        if (closestPeer() == item) resetClosestItem();
    }
    if (!delegate()) return;
    std::weak_ptr<QVLumerixHandler> weak = weak_from_this();
    dispatchToMainThreadIfNeccessary([weak, items = std::move(items)] {
        auto self = weak.lock();
        if (!self) return;
        if (auto* d = self->delegate()) {
            for (const QVLumerixItemRef& item : items) d->lumerixDidForgetItem(item);
        }
    });
}

void QVLumerixHandler::evaluateAdvertisement(const BlePeripheralRef& peripheral,
                                             const AdvertisementData& data, double rssi) {
    // LUMERIX_TRACE_DISCOVERY=1: one line per advertisement with its arrival time (for latency
    // measurements).
    static const bool trace = std::getenv("LUMERIX_TRACE_DISCOVERY") != nullptr;
    if (trace) {
        const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
        Log::logf("discovery %s rssi %d at %lld", peripheral->identifier().toUtf8().constData(),
                  static_cast<int>(rssi), static_cast<long long>(us));
    }
    QVLumerixItemRef item = discoverPeripheral(peripheral, data, rssi);
    decrytLumerixItem(item, data.manufacturerData);
    triggerDidDiscoverItem(item);
    compareClosestItemWithItem(item);
}

QVLumerixItemRef QVLumerixHandler::discoverPeripheral(const BlePeripheralRef& peripheral,
                                                      const AdvertisementData& data, double rssi) {
    const QString key = peripheral->identifier();
    QVLumerixItemRef item = getItemByUUID(key);
    if (!item) {
        item = QVLumerixItem::initWithPeripheral(peripheral, env_.clock);
        item->setDecayingQueue(evaluatingQueue_.get());
        std::vector<QVLumerixItemRef> evicted;
        {
            // The peers are read first: no other lock is taken while itemLock_ is held.
            const QVLumerixItemRef closest = closestPeer();
            const QVLumerixItemRef connected = connectedPeer();
            std::lock_guard lock(itemLock_);
            while (static_cast<size_t>(discoveredDeviceInfo_.size()) >= kMaxItems) {
                const size_t before = evicted.size();
                evictWeakestLocked(evicted, closest, connected);
                if (evicted.size() == before) break;
            }
            discoveredDeviceInfo_.insert(key, item);
            if (createdItems_.size() >= createdSweepAt_) {
                std::erase_if(createdItems_,
                              [](const std::weak_ptr<QVLumerixItem>& w) { return w.expired(); });
                createdSweepAt_ = std::max<size_t>(kMaxItems, createdItems_.size() * 2);
            }
            createdItems_.push_back(item);
        }
        if (!evicted.empty()) itemsDropped(std::move(evicted));
    }
    item->discoveredRssi(rssi, data);
    return item;
}

// --- decoding ---------------------------------------------------------------------------------

void QVLumerixHandler::decrytLumerixItem(const QVLumerixItemRef& item,
                                         const std::optional<QByteArray>& manufacturerData) {
    if (!manufacturerData || !item) return;
    const QByteArray& record = *manufacturerData;
    if (const auto previous = item->advertisedData(); previous && *previous == record) return;
    const qsizetype n = record.size();
    if (n < 4) return;
    // Decoding is a function of the record and what it left in the item: the same record again
    // changes nothing once the item is resolved (decay clears that, and then it runs anew).
    if (item->hasResolved() && record == item->lastDecodedRecord()) return;
    item->setLastDecodedRecord(record);

    const auto segmentByte = static_cast<uint8_t>(record[2]);
    const int segmentCount = segmentByte >> 4;
    const int segmentIndex = segmentByte & 0x0F;

    // Records longer than the buffer are cut to it; legacy advertising never carries one.
    uint8_t plain[kPlaintextCapacity];
    std::memset(plain, 0, sizeof plain);
    const auto cipherLength = static_cast<int32_t>(std::min<qsizetype>(n - 3, kPlaintextCapacity));
    const int m = DESDecrypt(kLumerixAdvertisementKey,
                             reinterpret_cast<const uint8_t*>(record.constData()) + 3, cipherLength, plain);

    LumerixStructV2 v = item->lumerixV2();
    if (m >= 6) {
        std::snprintf(v.ipAddress, 63, "%u.%u.%u.%u", plain[0], plain[1], plain[2], plain[3]);
        std::snprintf(v.loginCode, 7, "%02d%02d", plain[4], plain[5]);
        const auto nameCapacity = static_cast<size_t>(m - 6);
        if (segmentIndex == 2) {
            if (segmentCount == 2)
                boundedCopy(v.receiverName + kFirstSegmentBytes, kSecondSegmentBytes + 1, plain + 6,
                            nameCapacity);
        } else if (segmentIndex == 1) {
            // Segment 1's terminator lands on segment 2's first byte, which is kept.
            const char keep = v.receiverName[kFirstSegmentBytes];
            boundedCopy(v.receiverName, kFirstSegmentBytes + 1, plain + 6, nameCapacity);
            v.receiverName[kFirstSegmentBytes] = keep;
        }
    }

    std::optional<QString> name = item->receiverName();
    if (segmentCount == 1 && segmentIndex == 1) {
        v.receivedSegments = 0;
        name = boundedUtf8(v.receiverName);
    } else if (segmentCount == 2 && segmentIndex == 1) {
        const QString whole = boundedUtf8(v.receiverName);
        name = (v.receivedSegments & 2) ? whole : whole + QStringLiteral("...");
        v.receivedSegments |= 1;
    } else if (segmentCount == 2 && segmentIndex == 2) {
        name = (v.receivedSegments & 1)
                   ? boundedUtf8(v.receiverName)
                   : QStringLiteral("...") +
                         boundedUtf8(v.receiverName + kFirstSegmentBytes, kSecondSegmentBytes + 1);
        v.receivedSegments |= 2;
    }

    item->setLumerixV2(v);
    const LumerixStructV2 stored = item->lumerixV2();
    item->setIpAddress(boundedUtf8(stored.ipAddress));
    item->setLoginCode(boundedUtf8(stored.loginCode));

    if (item->hasResolved()) {
        if (namesDiffer(name, item->receiverName())) {
            item->setReceiverName(name);
            triggerItem(item, LumerixItemUpdated);
        }
    } else {
        item->setHasResolved(true);
        item->setReceiverName(name);
        triggerItem(item, LumerixItemResolved);
    }
}

void QVLumerixHandler::logDecryptedItem(const QVLumerixItemRef& item) {
    const LumerixHeaderStruct header = item ? item->lumerixHeader() : LumerixHeaderStruct{};
    const LumerixStruct info = item ? item->lumerix() : LumerixStruct{};
    const uint16_t lengths[5] = {header.LengthOfSSID, header.LengthOfWiFiPW, header.LengthOfIP,
                                 header.LengthOfReceiverName, header.LengthOfLogincode};
    const struct {
        const char* text;
        size_t capacity;
    } fields[5] = {{info.WiFiSSID, sizeof info.WiFiSSID},
                   {info.WiFiKey, sizeof info.WiFiKey},
                   {info.ReceiverIP, sizeof info.ReceiverIP},
                   {info.ReceiverName, sizeof info.ReceiverName},
                   {info.ReceiverLoginCode, sizeof info.ReceiverLoginCode}};
    Log::logf("%s", "-[QVLumerixHandler logDecryptedItem:]");
    Log::logf("----------------------");
    for (int k = 0; k < 5; ++k) {
        Log::logf("%d (%d) %.*s", k + 1, lengths[k],
                  static_cast<int>(strnlen(fields[k].text, fields[k].capacity)), fields[k].text);
    }
    Log::logf("----------------------");
}

// --- notifications ----------------------------------------------------------------------------

void QVLumerixHandler::triggerBLEStateDidChange(int state) {
    if (mCurrentState_.exchange(state) == state) return;
    if (auto* d = delegate()) d->lumerixStateDidChange(state);
}

void QVLumerixHandler::triggerDidDiscoverItem(const QVLumerixItemRef& item) {
    if (!delegate()) return;
    std::weak_ptr<QVLumerixHandler> weak = weak_from_this();
    dispatchToMainThreadIfNeccessary([weak, item] {
        auto self = weak.lock();
        if (!self) return;
        if (auto* d = self->delegate()) d->lumerixDidDiscoverItem(item);
    });
}

void QVLumerixHandler::triggerItem(const QVLumerixItemRef& item, int status) {
    switch (status) {
        case LumerixItemDisconnected:
            setConnectedPeer(nullptr);
            break;
        case LumerixItemConnected:
            setConnectedPeer(item);
            break;
        case LumerixItemResolved:
            disconnectCurrentItem();
            break;
        default:
            break;
    }
    if (!delegate()) return;
    std::weak_ptr<QVLumerixHandler> weak = weak_from_this();
    dispatchToMainThreadIfNeccessary([weak, item, status] {
        auto self = weak.lock();
        if (!self) return;
        if (auto* d = self->delegate()) d->lumerixItem(item, status);
    });
}

void QVLumerixHandler::triggerOnError(int code) {
    if (auto* d = delegate()) d->lumerixOnError(code);
}

void QVLumerixHandler::dispatchToMainThreadIfNeccessary(std::function<void()> block) {
    DispatchQueue* main = env_.mainQueue;
    if (mainBatch && main && !main->isCurrent()) {
        mainBatch->push_back(std::move(block));
    } else if (!main || main->isCurrent()) {
        block();
    } else {
        main->async(std::move(block));
    }
}

// --- item table and closest item --------------------------------------------------------------

QVLumerixItemRef QVLumerixHandler::getItemByUUID(const QString& uuid) {
    std::lock_guard lock(itemLock_);
    return discoveredDeviceInfo_.value(uuid);
}

void QVLumerixHandler::setItem(const QVLumerixItemRef& item, const QString& uuid) {
    std::lock_guard lock(itemLock_);
    if (item) {
        discoveredDeviceInfo_.insert(uuid, item);
    } else {
        discoveredDeviceInfo_.remove(uuid);
    }
}

QHash<QString, QVLumerixItemRef> QVLumerixHandler::discoveredDeviceInfo() {
    // A deep copy: a shallow one would share the table's storage with the evaluation queue, and
    // Qt decides when to detach with an unsynchronised check.
    std::lock_guard lock(itemLock_);
    QHash<QString, QVLumerixItemRef> copy;
    copy.reserve(discoveredDeviceInfo_.size());
    for (auto it = discoveredDeviceInfo_.cbegin(); it != discoveredDeviceInfo_.cend(); ++it)
        copy.insert(it.key(), it.value());
    return copy;
}

QVLumerixItemRef QVLumerixHandler::itemAtAddress(const QString& address) {
    if (address.isEmpty()) return nullptr;
    std::lock_guard lock(itemLock_);
    for (auto it = discoveredDeviceInfo_.cbegin(); it != discoveredDeviceInfo_.cend(); ++it) {
        const auto ip = it.value()->ipAddress();
        if (ip && address.compare(*ip, Qt::CaseSensitive) == 0) return it.value();
    }
    return nullptr;
}

void QVLumerixHandler::compareClosestItemWithItem(const QVLumerixItemRef& item) {
    if (!item || !item->isValid()) return;
    if (const QVLumerixItemRef closest = closestPeer(); closest && closest->isValid()) {
        if (closest == item) return;
        // Ties, and NaN on either side, go to the newcomer.
        if (strongerThan(closest->aveRssi(), item->aveRssi())) return;
    }
    setClosestPeer(item);
    if (auto* d = delegate()) d->lumerixClosestItemDidChange(item);
}

bool QVLumerixHandler::hasClosestItem() {
    BleCentral* central = cbCM();
    if (!central || central->state() != BleStatePoweredOn) return false;
    const QVLumerixItemRef closest = closestPeer();
    return closest && closest->isValid();
}

void QVLumerixHandler::resetClosestItem() { setClosestPeer(nullptr); }

void QVLumerixHandler::resovleClosestLumerixItem() {
    if (const QVLumerixItemRef closest = closestPeer()) connectAndResolveItem(closest);
}

QVLumerixItemRef QVLumerixHandler::closestPeer() const {
    std::lock_guard lock(peerMutex_);
    return closestPeer_;
}

void QVLumerixHandler::setClosestPeer(const QVLumerixItemRef& item) {
    QVLumerixItemRef old;
    std::lock_guard lock(peerMutex_);
    old = std::exchange(closestPeer_, item);
}

QVLumerixItemRef QVLumerixHandler::connectedPeer() const {
    std::lock_guard lock(peerMutex_);
    return connectedPeer_;
}

void QVLumerixHandler::setConnectedPeer(const QVLumerixItemRef& item) {
    std::lock_guard lock(peerMutex_);
    connectedPeer_ = item;
}

// --- connection -------------------------------------------------------------------------------

void QVLumerixHandler::connectAndResolveItem(const QVLumerixItemRef&) {
    // Advertisements carry everything needed; only an open connection is dropped.
    disconnectCurrentItem();
}

void QVLumerixHandler::disconnectCurrentItem() {
    const QVLumerixItemRef peer = connectedPeer();
    BleCentral* central = cbCM();
    if (peer && central) central->cancelPeripheralConnection(peer->peripheral());
}

}  // namespace lumerix
