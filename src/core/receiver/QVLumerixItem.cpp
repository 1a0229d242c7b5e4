#include "receiver/QVLumerixItem.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "log/Log.h"
#include "receiver/BoundedText.h"

namespace lumerix {
namespace {

using CharacteristicMap = QHash<QString, QByteArray>;

QString orNull(const std::optional<QString>& s) { return s ? *s : QStringLiteral("(null)"); }

// Minutes, seconds and milliseconds; minutes are not wrapped and milliseconds take four digits.
QString timerText(double elapsedMs) {
    long long t = 0;
    if (std::isfinite(elapsedMs) && std::fabs(elapsedMs) < 9.0e18) t = static_cast<long long>(elapsedMs);
    return Log::format("%02lld:%02lld:%04lld", t / 60000, (t / 1000) % 60, t % 1000);
}

// The intake rule: reject a single-precision value above 0.0 (127 means "no reading") and an
// integer value below -100. Written without casts that would be undefined for wild input.
bool acceptsRssi(double rssi) {
    if (!std::isfinite(rssi)) return false;
    if (rssi > 0.0) {
        if (rssi > static_cast<double>(std::numeric_limits<float>::max())) return false;
        if (static_cast<float>(rssi) > 0.0f) return false;
    }
    return std::trunc(rssi) >= -100.0;
}

}  // namespace

std::shared_ptr<QVLumerixItem> QVLumerixItem::initWithPeripheral(BlePeripheralRef peripheral,
                                                                 std::shared_ptr<Clock> clock) {
    return std::make_shared<QVLumerixItem>(std::move(peripheral), std::move(clock));
}

QVLumerixItem::QVLumerixItem(BlePeripheralRef peripheral, std::shared_ptr<Clock> clock)
    : peripheral_(std::move(peripheral)), clock_(clock ? std::move(clock) : systemClock()) {
    resetAllValues();
}

QVLumerixItem::~QVLumerixItem() {
    std::lock_guard lock(mutex_);
    cancelTimerLocked(true);
}

void QVLumerixItem::cancelTimerLocked(bool clearReference) {
    GCDTimer::cancelDispatchedTimer(decayingGCDTimer_);
    if (clearReference) decayingGCDTimer_.reset();
}

void QVLumerixItem::setDelegate(QVLumerixItemDelegate* delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = delegate;
}

QVLumerixItemDelegate* QVLumerixItem::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_;
}

void QVLumerixItem::setDecayingQueue(DispatchQueue* queue) {
    std::lock_guard lock(mutex_);
    decayingQueue_ = queue;
}

DispatchQueue* QVLumerixItem::decayingQueue() const {
    std::lock_guard lock(mutex_);
    return decayingQueue_;
}

void QVLumerixItem::discoveredRssi(double rssi) {
    std::lock_guard lock(mutex_);
    ++rssiTotalCount_;
    if (!acceptsRssi(rssi)) {
        if (!std::isfinite(rssi))
            Log::logf("-[QVLumerixItem discoveredRssi:] ignored a non-finite RSSI sample");
        return;
    }
    ++validRssiTotalCount_;
    discoveredTimeStamp_ = clock_->nowMs();
    addNewRssi(rssi);
    startDecaying();
}

void QVLumerixItem::discoveredRssi(double rssi, const AdvertisementData& advertisementData) {
    std::lock_guard lock(mutex_);
    discoveredRssi(rssi);
    // Kept even when the sample itself was rejected.
    advertisedDataList_->push(advertisementData);
}

void QVLumerixItem::addNewRssi(double rssi) {
    std::lock_guard lock(mutex_);
    aveRssi_ = rssi;
}

void QVLumerixItem::calculateAverage() {
    std::lock_guard lock(mutex_);
    const uint64_t n = rssiQueue_->count();
    if (n >= 3) aveRssi_ = rssiSum_ / static_cast<double>(n);
    if (aveRssi_ <= -100.0) aveRssi_ = 0;
}

void QVLumerixItem::startDecaying() {
    std::lock_guard lock(mutex_);
    cancelTimerLocked(true);
    // The block holds the item weakly: a queue that outlives the item must not keep it alive.
    std::weak_ptr<QVLumerixItem> weak = weak_from_this();
    decayingGCDTimer_ = GCDTimer::dispatchTimerForInterval(kDecayIntervalSeconds, decayingQueue_, [weak] {
        if (auto self = weak.lock()) self->decayItemIfNotReceivingRssi();
    });
}

void QVLumerixItem::decayItemIfNotReceivingRssi() {
    QVLumerixItemDelegate* toTell = nullptr;
    {
        std::lock_guard lock(mutex_);
        const double elapsedMs = clock_->nowMs() - discoveredTimeStamp_;
        uint64_t elapsed = 0;
        if (elapsedMs > 0 && elapsedMs < 1.8e19) elapsed = static_cast<uint64_t>(elapsedMs);
        const bool stale = elapsed >= 1000 && static_cast<uint32_t>(elapsed / 1000) > 2;
        if (stale && rssiQueue_->count() >= 3) addNewRssi(-101);
        if (aveRssi_ == 0.0) {
            cancelTimerLocked(true);
            rssiQueue_->reset();
            rssiSum_ = 0;
            hasResolved_ = false;
            toTell = delegate_;
        }
    }
    // Never call out while holding the lock: the delegate may read the item back.
    if (toTell) toTell->lumerixItemDisappeared(*this);
}

bool QVLumerixItem::isValid() const {
    const double rssi = aveRssi_.load(std::memory_order_acquire);
    return rssi >= -100.0 && rssi < 0.0;
}

std::optional<double> QVLumerixItem::aliveDuration() const {
    std::lock_guard lock(mutex_);
    return discoveredTimeStamp_;
}

std::optional<QString> QVLumerixItem::shortenedUUID() const {
    if (!peripheral_) return std::nullopt;
    return peripheral_->identifier();
}

void QVLumerixItem::clearAdvertisementDatas() {
    std::lock_guard lock(mutex_);
    advertisedDataList_->reset();
}

void QVLumerixItem::clearRssiDatas() {
    std::lock_guard lock(mutex_);
    cancelTimerLocked(true);
    rssiQueue_->reset();
    rssiSum_ = 0;
    aveRssi_ = 0;
}

void QVLumerixItem::resetAllValues() {
    std::lock_guard lock(mutex_);
    cancelTimerLocked(false);
    rssiQueue_ = std::make_shared<QVQueue<double>>(kRssiQueueCapacity);
    advertisedDataList_ = std::make_shared<QVQueue<AdvertisementData>>(kAdvertisedDataCapacity);
    dataBuffer_ = QByteArray();
    dataBuffer_.reserve(256);
    characteristicInfo_ = QHash<QString, QByteArray>();
    characteristicInfo_.reserve(10);
    rssiSum_ = 0;
    aveRssi_ = 0;
    hasAllCharacteristics_ = 0;
    aliveTimeStamp_ = clock_->nowMs();
    discoveredTimeStamp_ = clock_->nowMs();
    initialTimeStamp_ = clock_->nowMs();
    rssiTotalCount_ = 0;
    validRssiTotalCount_ = 0;
}

QString QVLumerixItem::toString() const {
    std::shared_ptr<QVQueue<double>> queue;
    double sum = 0;
    double ave = 0;
    {
        std::lock_guard lock(mutex_);
        queue = rssiQueue_;
        sum = rssiSum_;
        ave = aveRssi_;
    }
    const QString name = peripheral_ ? peripheral_->name() : QStringLiteral("(null)");
    return QStringLiteral("..........Item %1-%2..........\nRSSI lsit: %3\n")
               .arg(name, orNull(shortenedUUID()), queue->componentsJoinedByString(QStringLiteral(","))) +
           Log::format("RSSI SUM: %f\nRSSI AVE: %f\n", sum, ave);
}

QString QVLumerixItem::getLogString() const {
    std::vector<double> rssis;
    std::vector<AdvertisementData> ads;
    double discovered = 0;
    double alive = 0;
    LumerixStruct record{};
    {
        std::lock_guard lock(mutex_);
        rssis = rssiQueue_->dump();
        ads = advertisedDataList_->dump();
        discovered = discoveredTimeStamp_;
        alive = aliveTimeStamp_;
        record = lumerix_;
    }
    const double now = clock_->nowMs();
    const QString sinceSample = timerText(now - discovered);
    const QString sinceReset = timerText(now - alive);
    const QString identifier = peripheral_ ? peripheral_->identifier() : QStringLiteral("(null)");

    QStringList parts;
    for (double r : rssis) parts.append(lxDescription(r));
    const QString rssiText = QStringLiteral("{") + parts.join(QStringLiteral(",")) + QStringLiteral("}");
    parts.clear();
    for (const auto& a : ads) parts.append(lxDescription(a));
    const QString dataText = parts.join(QStringLiteral(",\n"));

    QString text =
        QStringLiteral("Timer: ") + sinceReset + QStringLiteral(" - ") + sinceSample + QStringLiteral("\n");
    if (record.WiFiSSID[0] != 0) {
        text += QStringLiteral("Name: \n") + boundedUtf8(record.WiFiKey) + QStringLiteral("(") +
                boundedUtf8(record.WiFiSSID) + QStringLiteral(")\n\n");
    }
    text += QStringLiteral("ID: \n") + identifier + QStringLiteral("\n\nRSSIs: \n") + rssiText +
            QStringLiteral("\n\nData:\n") + dataText;
    return text;
}

// Properties.

double QVLumerixItem::aveRssi() const { return aveRssi_.load(std::memory_order_acquire); }

// NOLINTBEGIN(bugprone-macro-parentheses): Type is a type and member a data member name.
#define LX_ITEM_PROPERTY(Type, getter, setter, member) \
    Type QVLumerixItem::getter() const {               \
        std::lock_guard lock(mutex_);                  \
        return member;                                 \
    }                                                  \
    void QVLumerixItem::setter(Type v) {               \
        std::lock_guard lock(mutex_);                  \
        member = std::move(v);                         \
    }
// NOLINTEND(bugprone-macro-parentheses)

// A connection detail: an actual change moves detailsRevision().
#define LX_ITEM_DETAIL(getter, setter, member)                    \
    std::optional<QString> QVLumerixItem::getter() const {        \
        std::lock_guard lock(mutex_);                             \
        return member;                                            \
    }                                                             \
    void QVLumerixItem::setter(std::optional<QString> v) {        \
        std::lock_guard lock(mutex_);                             \
        if ((member) == v) return;                                \
        (member) = std::move(v);                                  \
        detailsRevision_.fetch_add(1, std::memory_order_release); \
    }

LX_ITEM_PROPERTY(double, rssiSum, setRssiSum, rssiSum_)
LX_ITEM_PROPERTY(std::shared_ptr<QVQueue<double>>, rssiQueue, setRssiQueue, rssiQueue_)
LX_ITEM_PROPERTY(uint64_t, rssiTotalCount, setRssiTotalCount, rssiTotalCount_)
LX_ITEM_PROPERTY(uint64_t, validRssiTotalCount, setValidRssiTotalCount, validRssiTotalCount_)
LX_ITEM_PROPERTY(double, discoveredTimeStamp, setDiscoveredTimeStamp, discoveredTimeStamp_)
LX_ITEM_PROPERTY(double, aliveTimeStamp, setAliveTimeStamp, aliveTimeStamp_)
LX_ITEM_PROPERTY(double, initialTimeStamp, setInitialTimeStamp, initialTimeStamp_)
LX_ITEM_PROPERTY(DispatchTimerRef, decayingGCDTimer, setDecayingGCDTimer, decayingGCDTimer_)
LX_ITEM_PROPERTY(std::shared_ptr<QVQueue<AdvertisementData>>, advertisedDataList, setAdvertisedDataList,
                 advertisedDataList_)
LX_ITEM_PROPERTY(std::optional<QByteArray>, advertisedData, setAdvertisedData, advertisedData_)
LX_ITEM_PROPERTY(QByteArray, dataBuffer, setDataBuffer, dataBuffer_)
LX_ITEM_PROPERTY(CharacteristicMap, characteristicInfo, setCharacteristicInfo, characteristicInfo_)
LX_ITEM_PROPERTY(int8_t, hasAllCharacteristics, setHasAllCharacteristics, hasAllCharacteristics_)
LX_ITEM_PROPERTY(bool, hasResolved, setHasResolved, hasResolved_)
LX_ITEM_DETAIL(ipAddress, setIpAddress, ipAddress_)
LX_ITEM_DETAIL(loginCode, setLoginCode, loginCode_)
LX_ITEM_PROPERTY(std::optional<QString>, wifiSSID, setWifiSSID, wifiSSID_)
LX_ITEM_DETAIL(receiverName, setReceiverName, receiverName_)

#undef LX_ITEM_PROPERTY
#undef LX_ITEM_DETAIL

// The records are copied whole under the lock, so a reader never sees half of one.
LumerixHeaderStruct QVLumerixItem::lumerixHeader() const {
    std::lock_guard lock(mutex_);
    return lumerixHeader_;
}
void QVLumerixItem::setLumerixHeader(const LumerixHeaderStruct& v) {
    std::lock_guard lock(mutex_);
    lumerixHeader_ = v;
}
LumerixStruct QVLumerixItem::lumerix() const {
    std::lock_guard lock(mutex_);
    return lumerix_;
}
void QVLumerixItem::setLumerix(const LumerixStruct& v) {
    std::lock_guard lock(mutex_);
    lumerix_ = v;
}
LumerixStructV2 QVLumerixItem::lumerixV2() const {
    std::lock_guard lock(mutex_);
    return lumerixV2_;
}
void QVLumerixItem::setLumerixV2(const LumerixStructV2& v) {
    std::lock_guard lock(mutex_);
    lumerixV2_ = v;
}

QVLumerixItem::ConnectionDetails QVLumerixItem::connectionDetails() const {
    std::lock_guard lock(mutex_);
    return {ipAddress_, loginCode_, receiverName_};
}

}  // namespace lumerix
