// GATT connection-info read path of QVLumerixHandler: connection callbacks, service and
// characteristic choice, value intake, header decoding and AES decryption of the data.
#include <QByteArray>
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "log/Log.h"
#include "receiver/AesEcb.h"
#include "receiver/CheckedCopy.h"
#include "receiver/LumerixKeys.h"
#include "receiver/QVLumerixHandler.h"

namespace lumerix {
namespace {

constexpr const char* kDidConnect = "-[QVLumerixHandler centralManager:didConnectPeripheral:]";
constexpr const char* kDidFailToConnect =
    "-[QVLumerixHandler centralManager:didFailToConnectPeripheral:error:]";
constexpr const char* kDidDisconnect = "-[QVLumerixHandler centralManager:didDisconnectPeripheral:error:]";
constexpr const char* kDidDiscoverServices = "-[QVLumerixHandler peripheral:didDiscoverServices:]";
constexpr const char* kDidUpdateValue =
    "-[QVLumerixHandler peripheral:didUpdateValueForCharacteristic:error:]";
constexpr const char* kDecryptData = "-[QVLumerixHandler decrytLumerixData:]";

constexpr size_t kOutputArea = 256;

uint8_t uuidByte(const BleUuid& uuid, int index) {
    const QByteArray& b = uuid.bytes();
    return index < b.size() ? static_cast<uint8_t>(b[index]) : 0;
}

bool isReceiverService(const BleUuid& uuid) { return uuidByte(uuid, 0) == 0x58 && uuidByte(uuid, 1) == 0x85; }

// Deliberately loose: any second byte with bit 7 or one of bits 0-3 set is read.
bool isReadableCharacteristic(const BleUuid& uuid) {
    return uuidByte(uuid, 0) == 0x58 && (uuidByte(uuid, 1) & 0x8F) != 0;
}

// A length byte: sign-extended to 16 bits, complemented when the header says so.
uint16_t lengthField(uint8_t byte, bool inverted) {
    auto v = static_cast<uint16_t>(static_cast<int16_t>(static_cast<int8_t>(byte)));
    return inverted ? static_cast<uint16_t>(v ^ 0xFFFF) : v;
}

struct FieldSlot {
    const char* name;
    size_t offset;  // in LumerixStruct
    uint16_t LumerixHeaderStruct::*length;
};
constexpr FieldSlot kFields[] = {
    {"WiFiSSID", offsetof(LumerixStruct, WiFiSSID), &LumerixHeaderStruct::LengthOfSSID},
    {"WiFiKey", offsetof(LumerixStruct, WiFiKey), &LumerixHeaderStruct::LengthOfWiFiPW},
    {"ReceiverIP", offsetof(LumerixStruct, ReceiverIP), &LumerixHeaderStruct::LengthOfIP},
    {"ReceiverName", offsetof(LumerixStruct, ReceiverName), &LumerixHeaderStruct::LengthOfReceiverName},
    {"ReceiverLoginCode", offsetof(LumerixStruct, ReceiverLoginCode),
     &LumerixHeaderStruct::LengthOfLogincode},
};

}  // namespace

void QVLumerixHandler::centralManagerDidConnectPeripheral(const BlePeripheralRef& peripheral) {
    Log::logf("%s", kDidConnect);
    if (!peripheral) return;
    QVLumerixItemRef item = getItemByUUID(peripheral->identifier());
    peripheral->setDelegate(this);
    peripheral->readRSSI();
    peripheral->discoverServices();
    if (!item) {
        // A peripheral connected after its item left the table: there is nobody to report it for.
        Log::logf("%s: no item for %s, status not reported", kDidConnect,
                  qUtf8Printable(peripheral->identifier()));
        return;
    }
    triggerItem(item, LumerixItemConnected);
}

void QVLumerixHandler::centralManagerDidFailToConnectPeripheral(const BlePeripheralRef& peripheral,
                                                                const std::optional<BleError>& error) {
    const QString name = peripheral ? peripheral->name() : QStringLiteral("(null)");
    const QString id = peripheral ? peripheral->identifier() : QStringLiteral("(null)");
    const QString desc = error ? error->description : QStringLiteral("(null)");
    Log::logf("%s, connection failed to peripheral: %s with UUID: %s, error:%s", kDidFailToConnect,
              qUtf8Printable(name), qUtf8Printable(id), qUtf8Printable(desc));
    if (error) triggerOnError(error->code);
}

void QVLumerixHandler::centralManagerDidDisconnectPeripheral(const BlePeripheralRef& peripheral,
                                                             const std::optional<BleError>& error) {
    Log::logf("%s", kDidDisconnect);
    if (error && error->code == kBleErrorConnectionFailed) {
        // The link dropped while being set up: try the same peripheral again, without limit.
        Log::logf("%s retry connection", kDidDisconnect);
        if (BleCentral* central = cbCM(); peripheral && central) central->connectPeripheral(peripheral);
        return;
    }
    if (QVLumerixItemRef peer = connectedPeer()) triggerItem(peer, LumerixItemDisconnected);
    scanForLumerixService(continueScanAfterConnect());
    if (error) {
        const QString id = peripheral ? peripheral->identifier() : QStringLiteral("(null)");
        Log::logf("%s %s %s", kDidDisconnect, qUtf8Printable(id), qUtf8Printable(error->description));
        triggerOnError(error->code);
    }
}

void QVLumerixHandler::peripheralDidReadRSSI(BlePeripheral& peripheral, double rssi,
                                             const std::optional<BleError>&) {
    if (QVLumerixItemRef item = getItemByUUID(peripheral.identifier())) item->discoveredRssi(rssi);
}

void QVLumerixHandler::peripheralDidDiscoverServices(BlePeripheral& peripheral,
                                                     const std::optional<BleError>&) {
    BleServiceRef chosen;
    for (const BleServiceRef& service : peripheral.services()) {
        if (service && isReceiverService(service->uuid())) {
            chosen = service;
            break;
        }
    }
    QVLumerixItemRef peer = connectedPeer();
    BlePeripheralRef target = peer ? peer->peripheral() : nullptr;
    if (!target) {
        Log::logf("%s: no connected peripheral to continue with", kDidDiscoverServices);
        return;
    }
    if (chosen)
        target->discoverCharacteristics(chosen);
    else
        target->discoverServices();  // asks again until the service shows up or the link drops
}

void QVLumerixHandler::peripheralDidDiscoverCharacteristicsForService(BlePeripheral& peripheral,
                                                                      const BleServiceRef& service,
                                                                      const std::optional<BleError>&) {
    if (!service) return;
    for (const BleCharacteristicRef& c : service->characteristics()) {
        if (c && isReadableCharacteristic(c->uuid())) peripheral.readValueForCharacteristic(c);
    }
}

void QVLumerixHandler::peripheralDidUpdateValueForCharacteristic(BlePeripheral& peripheral,
                                                                 const BleCharacteristicRef& characteristic,
                                                                 const std::optional<BleError>& error) {
    if (error) {
        Log::logf("%s, %s", kDidUpdateValue, qUtf8Printable(error->description));
        return;
    }
    if (!characteristic) return;
    const BleUuid uuid = characteristic->uuid();
    if (!isReadableCharacteristic(uuid)) return;

    QVLumerixItemRef item = getItemByUUID(peripheral.identifier());
    if (!item) {
        Log::logf("Error: item<%s> is not in discvoered list", qUtf8Printable(peripheral.name()));
        return;
    }
    QVLumerixItemRef peer = connectedPeer();
    BlePeripheralRef peerPeripheral = peer ? peer->peripheral() : nullptr;
    if (!peerPeripheral ||
        peerPeripheral->identifier().compare(peripheral.identifier(), Qt::CaseInsensitive) != 0) {
        Log::logf("Warn: No connected device but is updating device: %s", qUtf8Printable(peripheral.name()));
    }

    const QByteArray value = characteristic->value();
    if (uuidByte(uuid, 1) == 0x80) {
        decrytLumerixHeader(item, value);
        return;
    }
    if (value.isEmpty()) return;
    if (!item->updateCharacteristic(*characteristic)) return;
    decrytLumerixData(item);
    if (autoDisconnectAfterResolve()) disconnectCurrentItem();
}

void QVLumerixHandler::decrytLumerixHeader(const QVLumerixItemRef& item, const QByteArray& data) {
    if (!item) return;
    // A short value reads as if padded with zero bytes.
    auto at = [&data](int i) { return i < data.size() ? static_cast<uint8_t>(data[i]) : uint8_t{0}; };
    const bool inverted = (at(0) & 0x40) != 0;
    LumerixHeaderStruct header{};
    header.HeaderFlags = static_cast<uint16_t>(at(0) & 0x0F);
    header.LastDataIndex = static_cast<uint16_t>(static_cast<int16_t>(static_cast<int8_t>(at(1))));
    header.LengthOfSSID = lengthField(at(2), inverted);
    header.LengthOfWiFiPW = lengthField(at(3), inverted);
    header.LengthOfIP = lengthField(at(4), inverted);
    header.LengthOfReceiverName = lengthField(at(5), inverted);
    header.LengthOfLogincode = lengthField(at(6), inverted);
    item->setLumerixHeader(header);
}

void QVLumerixHandler::decrytLumerixData(const QVLumerixItemRef& item) {
    if (!item) return;
    // The decryption writes nothing when it fails (a buffer over 256 bytes, or one that is not a
    // whole number of blocks), so the area then stays zero and every field comes out empty.
    uint8_t area[kOutputArea] = {};
    const QByteArray buffer = item->dataBuffer();
    const AesResult result =
        aes128EcbDecrypt(kLumerixConnectionInfoKey, reinterpret_cast<const uint8_t*>(buffer.constData()),
                         static_cast<size_t>(buffer.size()), area, sizeof area);
    if (result.status != AesStatus::Success)
        Log::logf("%s: decryption of %lld bytes failed (%s); the fields stay empty", kDecryptData,
                  static_cast<long long>(buffer.size()), aesStatusName(result.status));

    const LumerixHeaderStruct header = item->lumerixHeader();
    LumerixStruct record{};
    auto* base = reinterpret_cast<unsigned char*>(&record);
    size_t p = 0;
    for (const FieldSlot& field : kFields) {
        const size_t length = header.*field.length;
        const size_t bound = sizeof(LumerixStruct) - field.offset;
        // Reads past the end of the area see zero bytes.
        unsigned char piece[sizeof(LumerixStruct)] = {};
        if (p < kOutputArea) std::memcpy(piece, area + p, std::min({length, kOutputArea - p, sizeof piece}));
        checkedCopy(base + field.offset, bound, piece, length, field.name);
        p += length;
    }
    item->setLumerix(record);
    item->setHasResolved(true);
    triggerItem(item, LumerixItemResolved);
}

void QVLumerixHandler::connectItem(const QVLumerixItemRef& item) {
    if (BleCentral* central = cbCM(); item && item->peripheral() && central)
        central->connectPeripheral(item->peripheral());
}

}  // namespace lumerix
