#include "legacy/CLumerix.h"

#include <algorithm>
#include <cstring>

#include "log/Log.h"
#include "receiver/AesEcb.h"
#include "receiver/BoundedText.h"
#include "receiver/LumerixKeys.h"

namespace lumerix {
namespace {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF, no cut-off sequence.
bool isValidUtf8(const unsigned char* s, size_t n) {
    size_t i = 0;
    while (i < n) {
        const unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t extra = 0;
        uint32_t cp = 0;
        uint32_t min = 0;
        if ((c & 0xE0) == 0xC0) {
            extra = 1, cp = c & 0x1F, min = 0x80;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2, cp = c & 0x0F, min = 0x800;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3, cp = c & 0x07, min = 0x10000;
        } else {
            return false;
        }
        if (n - i <= extra) return false;
        for (size_t k = 1; k <= extra; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += extra + 1;
    }
    return true;
}

const QString kUUID = QStringLiteral("UUID");
const QString kEncrypt = QStringLiteral("Encrypt");
const QString kLengthKeys[5] = {QStringLiteral("LengthOfSSID"), QStringLiteral("LengthOfWiFiPW"),
                                QStringLiteral("LengthOfIP"), QStringLiteral("LengthOfReceiverName"),
                                QStringLiteral("LengthOfLogincode")};
struct Cut {
    const char* key;
    const char* logFormat;
};
constexpr Cut kCuts[5] = {{"WiFiSSID", "WiFiSSID: %s"},
                          {"WiFiKey", "WiFiKey: %s"},
                          {"ReceiverIP", "ReceiverIP: %s"},
                          {"ReceiverName", "ReceiverName: %s"},
                          {"ReceiverLoginCode", "ReceiverLoginCode: %s"}};

}  // namespace

std::shared_ptr<CLumerix> CLumerix::create(CLumerixEnvironment env) {
    auto reader = std::make_shared<CLumerix>(std::move(env));
    reader->armAliveCheck();
    reader->armReader();
    return reader;
}

CLumerix::CLumerix(CLumerixEnvironment env) : env_(std::move(env)) {
    if (env_.makeCentral) cbCM_ = env_.makeCentral(this, env_.queue);
}

CLumerix::~CLumerix() {
    std::lock_guard lock(mutex_);
    for (TaskHandle* t : {&connectTimer_, &aliveTimer_, &readerTimer_})
        if (*t) (*t)->cancel();
    if (m_pCurrentConnectPeripheral) m_pCurrentConnectPeripheral->setDelegate(nullptr);
}

void CLumerix::armAliveCheck() {
    if (!env_.queue) return;
    std::weak_ptr<CLumerix> weak = weak_from_this();
    TaskHandle h = env_.queue->after(kAliveCheckSeconds * 1000.0, [weak] {
        if (auto self = weak.lock()) self->CheckLumerixAlivedTimer();
    });
    std::lock_guard lock(mutex_);
    aliveTimer_ = std::move(h);
}

// The reader was a thread that slept 8 seconds between turns; here each turn is a task on the
// reader queue that schedules the next one, so tests drive it on virtual time. The turn itself
// runs on the central's queue: the central is called from there only, and the alive check cannot
// fall between taking a beacon off the wait list and making it the current one.
void CLumerix::armReader() {
    if (!env_.readerQueue) return;
    std::weak_ptr<CLumerix> weak = weak_from_this();
    TaskHandle h = env_.readerQueue->after(kReaderIntervalSeconds * 1000.0, [weak] {
        auto self = weak.lock();
        if (!self) return;
        DispatchQueue* queue = self->env_.queue;
        if (queue && queue != self->env_.readerQueue) {
            queue->async([weak] {
                if (auto s = weak.lock()) s->GetSharvaneDataThread();
            });
        } else {
            self->GetSharvaneDataThread();
        }
        self->armReader();
    });
    std::lock_guard lock(mutex_);
    readerTimer_ = std::move(h);
}

void CLumerix::GetSharvaneDataThread() {
    BlePeripheralRef next;
    {
        std::lock_guard wait(waitMutex_);
        if (m_pWaitForConnectPeripheral.isEmpty()) return;
        next = m_pWaitForConnectPeripheral.first();
    }
    {
        std::lock_guard lock(mutex_);
        DisconnectLocked();
        m_pCurrentConnectPeripheral = next;
        ConnectLocked();
    }
    std::lock_guard wait(waitMutex_);
    m_pWaitForConnectPeripheral.removeOne(next);
}

void CLumerix::Connect() {
    std::lock_guard lock(mutex_);
    ConnectLocked();
}

void CLumerix::ConnectLocked() {
    if (!m_pCurrentConnectPeripheral) return;
    const QString id = m_pCurrentConnectPeripheral->identifier();
    Log::logf("CLumerix connect %s\n", qUtf8Printable(id));
    if (cbCM_) cbCM_->connectPeripheral(m_pCurrentConnectPeripheral);
    m_pDictCollectData.clear();
    m_pDictCollectData.insert(kUUID, id);
    if (connectTimer_) connectTimer_->cancel();
    connectTimer_.reset();
    if (env_.queue) {
        std::weak_ptr<CLumerix> weak = weak_from_this();
        connectTimer_ = env_.queue->after(kConnectTimeoutSeconds * 1000.0, [weak] {
            if (auto self = weak.lock()) self->OnConnectTimerOut();
        });
    }
}

void CLumerix::Disconnect() {
    std::lock_guard lock(mutex_);
    DisconnectLocked();
}

void CLumerix::DisconnectLocked() {
    // A time-out left armed would cut the next read short.
    if (connectTimer_) connectTimer_->cancel();
    connectTimer_.reset();
    if (!m_pCurrentConnectPeripheral) return;
    if (cbCM_) cbCM_->cancelPeripheralConnection(m_pCurrentConnectPeripheral);
    m_pCurrentConnectPeripheral->setDelegate(nullptr);
    // Nothing is being read any more: late values are ignored and the alive check may queue it again.
    m_pCurrentConnectPeripheral.reset();
}

void CLumerix::OnConnectTimerOut() {
    std::lock_guard lock(mutex_);
    connectTimer_.reset();
    if (m_pCurrentConnectPeripheral)
        Log::logf("CLumerix connect timeout %s\n", qUtf8Printable(m_pCurrentConnectPeripheral->identifier()));
    DisconnectLocked();
}

void CLumerix::centralManagerDidUpdateState(int state) {
    switch (state) {
        case BleStatePoweredOn:
            Log::logf("CoreBluetooth BLE hardware is powered on and ready");
            // Every sighting counts: the alive check drops beacons not heard for 20 seconds.
            if (cbCM_) cbCM_->scanForPeripherals(true);
            break;
        case BleStatePoweredOff:
            Log::logf("CoreBluetooth BLE hardware is powered off");
            break;
        case BleStateResetting:
            Log::logf("CoreBluetooth BLE hardware is resetting");
            break;
        case BleStateUnauthorized:
            Log::logf("CoreBluetooth BLE state is unauthorized");
            break;
        case BleStateUnsupported:
            Log::logf("CoreBluetooth BLE hardware is unsupported on this platform");
            break;
        default:
            Log::logf("CoreBluetooth BLE state is unknown");
            break;
    }
}

void CLumerix::centralManagerDidDiscoverPeripheral(const BlePeripheralRef& peripheral,
                                                   const AdvertisementData& advertisementData, double rssi) {
    // Receivers are the advertisers named "LX", as on the newer path.
    if (!peripheral || advertisementData.localName != QStringLiteral("LX")) return;
    std::lock_guard lock(mutex_);
    const QString id = peripheral->identifier();
    for (const auto& beacon : m_pLivedBeaconArray) {
        if (beacon->peripheral()->identifier() == id) {
            beacon->SetRSSI(rssi);
            beacon->SetTimpStamp(nowSeconds());
            return;
        }
    }
    auto beacon = std::make_shared<BeaconInfo>(peripheral);
    beacon->SetRSSI(rssi);
    beacon->SetTimpStamp(nowSeconds());
    m_pLivedBeaconArray.append(beacon);
}

void CLumerix::centralManagerDidConnectPeripheral(const BlePeripheralRef& peripheral) {
    if (!peripheral) return;
    Log::logf("CLumerix connected %s\n", qUtf8Printable(peripheral->identifier()));
    peripheral->setDelegate(this);
    peripheral->discoverServices();
}

void CLumerix::centralManagerDidFailToConnectPeripheral(const BlePeripheralRef&,
                                                        const std::optional<BleError>& error) {
    Log::logf("Connection failed code [%ld] domain %s\nErr : %s\n",
              static_cast<long>(error ? error->code : 0), "BleErrorDomain",
              error ? qUtf8Printable(error->description) : "(null)");
}

void CLumerix::centralManagerDidDisconnectPeripheral(const BlePeripheralRef& peripheral,
                                                     const std::optional<BleError>&) {
    if (peripheral) Log::logf("CLumerix disconnected %s\n", qUtf8Printable(peripheral->identifier()));
}

void CLumerix::peripheralDidDiscoverServices(BlePeripheral& peripheral, const std::optional<BleError>&) {
    Log::logf("Found Services.");
    for (const BleServiceRef& service : peripheral.services())
        if (service) peripheral.discoverCharacteristics(service);
}

void CLumerix::peripheralDidDiscoverCharacteristicsForService(BlePeripheral& peripheral,
                                                              const BleServiceRef& service,
                                                              const std::optional<BleError>&) {
    if (!service) return;
    Log::logf("Found Characteristics in Service:%s (%s)", qUtf8Printable(service->uuid().toString()),
              qUtf8Printable(peripheral.identifier()));
    for (const BleCharacteristicRef& c : service->characteristics()) {
        if (!c) continue;
        const QByteArray b = c->uuid().bytes();
        if (b.size() >= 2 && static_cast<uint8_t>(b[0]) == 0x58 &&
            (static_cast<uint8_t>(b[1]) & 0xF0) == 0x80)
            peripheral.readValueForCharacteristic(c);
    }
}

void CLumerix::peripheralDidUpdateValueForCharacteristic(BlePeripheral& peripheral,
                                                         const BleCharacteristicRef& characteristic,
                                                         const std::optional<BleError>& error) {
    if (error) {
        Log::logf("didUpdateValueForCharacteristic error occur %ld\n", static_cast<long>(error->code));
        return;
    }
    if (!characteristic) return;
    const QByteArray id = characteristic->uuid().bytes();
    if (id.size() < 2) return;
    const auto b0 = static_cast<uint8_t>(id[0]);
    const auto b1 = static_cast<uint8_t>(id[1]);
    if (b0 != 0x58 || (b1 & 0xF0) != 0x80) return;
    const QByteArray value = characteristic->value().left(kValueBytesUsed);
    Log::logf("characteristic %02x%02x %s\n", b0, b1, value.constData());

    std::lock_guard lock(mutex_);
    if (!m_pCurrentConnectPeripheral ||
        m_pCurrentConnectPeripheral->identifier() != peripheral.identifier()) {
        Log::logf("CLumerix ignores a value of %s, which is not being read\n",
                  qUtf8Printable(peripheral.identifier()));
        return;
    }
    if (b1 == 0x80) {
        auto at = [&value](int i) { return i < value.size() ? static_cast<uint8_t>(value[i]) : uint8_t{0}; };
        m_uiOffsetOfConnectionInfo = 0;
        std::memset(m_szConnectionInfo, 0, sizeof m_szConnectionInfo);
        const bool inverted = (at(0) & 0x40) != 0;
        m_uiCountsOfCharacteristic = at(1);
        m_pDictCollectData.insert(kEncrypt, (at(0) & 0x0F) ? QStringLiteral("YES") : QStringLiteral("NO"));
        for (int i = 0; i < 5; ++i) {
            const uint8_t raw = at(2 + i);
            m_pDictCollectData.insert(kLengthKeys[i],
                                      static_cast<int>(inverted ? static_cast<uint8_t>(~raw) : raw));
        }
        return;
    }
    const size_t room = kConnectionInfoSize - m_uiOffsetOfConnectionInfo;
    const size_t take = std::min(room, static_cast<size_t>(value.size()));
    if (take < static_cast<size_t>(value.size()))
        Log::logf("CLumerix collection buffer full: %lld bytes of %02x%02x dropped\n",
                  static_cast<long long>(value.size() - static_cast<qsizetype>(take)), b0, b1);
    std::memcpy(m_szConnectionInfo + m_uiOffsetOfConnectionInfo, value.constData(), take);
    m_uiOffsetOfConnectionInfo += static_cast<unsigned int>(take);
    if (b1 == 0x85u + m_uiCountsOfCharacteristic) {
        ParsecollectDataLocked();
        DisconnectLocked();
    }
}

void CLumerix::ParsecollectData() {
    std::lock_guard lock(mutex_);
    ParsecollectDataLocked();
}

void CLumerix::ParsecollectDataLocked() {
    const QString uuid = m_pDictCollectData.value(kUUID).toString();
    QByteArray text;
    bool usable = false;
    if (m_pDictCollectData.value(kEncrypt).toString() == QStringLiteral("YES")) {
        // A ciphertext that is not a whole number of blocks is accepted, but the decryption writes
        // nothing for it, so the text is then empty.
        unsigned char out[kConnectionInfoSize] = {};
        const AesResult r = aes128EcbDecrypt(kLumerixConnectionInfoKey, m_szConnectionInfo,
                                             m_uiOffsetOfConnectionInfo, out, sizeof out);
        if ((r.status == AesStatus::Success || r.status == AesStatus::AlignmentError) &&
            isValidUtf8(out, r.dataOutMoved)) {
            text = QByteArray(reinterpret_cast<const char*>(out), static_cast<qsizetype>(r.dataOutMoved));
            usable = true;
        }
    }
    if (!usable && isValidUtf8(m_szConnectionInfo, m_uiOffsetOfConnectionInfo)) {
        text = QByteArray(reinterpret_cast<const char*>(m_szConnectionInfo),
                          static_cast<qsizetype>(m_uiOffsetOfConnectionInfo));
        usable = true;
    }
    if (!usable) {
        Log::logf("CLumerix: data of %s is not text; nothing stored\n", qUtf8Printable(uuid));
        return;
    }

    std::shared_ptr<SharvaneInfo> info = lookupLocked(uuid);
    if (info) {
        info->SetTimpStamp();
    } else {
        info = std::make_shared<SharvaneInfo>(env_.clock);
        info->setValue(QStringLiteral("PeripheralUUID"), uuid);
        info->SetTimpStamp();
        Log::logf("Get new Data: %s", qUtf8Printable(info->description()));
        m_pLookupTable.append(info);
    }

    qsizetype pos = 0;
    for (int i = 0; i < 5; ++i) {
        const QVariant length = m_pDictCollectData.value(kLengthKeys[i]);
        if (!length.isValid()) continue;
        const qsizetype len = length.toInt();
        char field[kFieldBufferSize] = {};
        const qsizetype available = std::max<qsizetype>(0, text.size() - pos);
        const qsizetype n = std::min({len, available, static_cast<qsizetype>(kFieldBufferSize)});
        if (n > 0) std::memcpy(field, text.constData() + pos, static_cast<size_t>(n));
        const QString v = boundedUtf8(field);
        info->setValue(QString::fromLatin1(kCuts[i].key), v);
        Log::logf(kCuts[i].logFormat, qUtf8Printable(v));
        pos += len;
    }
}

std::shared_ptr<SharvaneInfo> CLumerix::lookupLocked(const QString& identifier) const {
    for (const auto& info : m_pLookupTable)
        if (info->value(QStringLiteral("PeripheralUUID")) == identifier) return info;
    return nullptr;
}

bool CLumerix::isWaiting(const QString& identifier) const {
    std::lock_guard wait(waitMutex_);
    return std::any_of(m_pWaitForConnectPeripheral.cbegin(), m_pWaitForConnectPeripheral.cend(),
                       [&](const BlePeripheralRef& p) { return p->identifier() == identifier; });
}

void CLumerix::CheckLumerixAlivedTimer() {
    {
        std::lock_guard lock(mutex_);
        const double now = nowSeconds();
        for (qsizetype i = m_pLivedBeaconArray.size() - 1; i >= 0; --i) {
            const auto& beacon = m_pLivedBeaconArray[i];
            if (now - beacon->GetTimpStamp() > kBeaconAliveSeconds) {
                Log::logf("Beacon doesn't alive ID: %s currentTime %lf BeaconStamp %lf\n",
                          qUtf8Printable(beacon->peripheral()->identifier()), now, beacon->GetTimpStamp());
                m_pLivedBeaconArray.removeAt(i);
            }
        }
        for (qsizetype i = m_pLivedBeaconArray.size() - 1; i >= 0; --i) {
            const BlePeripheralRef& p = m_pLivedBeaconArray[i]->peripheral();
            const QString id = p->identifier();
            auto info = lookupLocked(id);
            if (info && now - info->GetTimpStamp() < kLookupFreshSeconds) continue;
            if (isWaiting(id)) continue;
            if (m_pCurrentConnectPeripheral && m_pCurrentConnectPeripheral->identifier() == id) continue;
            Log::logf("Wait to Search UUID %s \n", qUtf8Printable(id));
            std::lock_guard wait(waitMutex_);
            m_pWaitForConnectPeripheral.append(p);
        }
    }
    armAliveCheck();
}

QList<std::shared_ptr<SharvaneInfo>> CLumerix::lookupTable() const {
    std::lock_guard lock(mutex_);
    return m_pLookupTable;
}
QList<std::shared_ptr<BeaconInfo>> CLumerix::livedBeacons() const {
    std::lock_guard lock(mutex_);
    return m_pLivedBeaconArray;
}
QList<BlePeripheralRef> CLumerix::waitingPeripherals() const {
    std::lock_guard wait(waitMutex_);
    return m_pWaitForConnectPeripheral;
}
BlePeripheralRef CLumerix::currentPeripheral() const {
    std::lock_guard lock(mutex_);
    return m_pCurrentConnectPeripheral;
}
QVariantMap CLumerix::collectedValues() const {
    std::lock_guard lock(mutex_);
    return m_pDictCollectData;
}

}  // namespace lumerix
