#include "receiver/LumerixRecordCodec.h"

#include "receiver/DesCfb.h"
#include "receiver/LumerixKeys.h"

namespace lumerix {

QByteArray makeLumerixRecord(uint8_t segmentByte, const std::array<uint8_t, 4>& ipv4, uint8_t code1,
                             uint8_t code2, const QByteArray& nameSegment, uint16_t companyId) {
    QByteArray plain;
    plain.reserve(6 + nameSegment.size());
    for (uint8_t octet : ipv4) plain.append(static_cast<char>(octet));
    plain.append(static_cast<char>(code1));
    plain.append(static_cast<char>(code2));
    plain.append(nameSegment);

    QByteArray record(3 + plain.size(), '\0');
    record[0] = static_cast<char>(companyId & 0xFF);
    record[1] = static_cast<char>(companyId >> 8);
    record[2] = static_cast<char>(segmentByte);
    DESEncrypt(kLumerixAdvertisementKey, reinterpret_cast<const uint8_t*>(plain.constData()),
               static_cast<int32_t>(plain.size()), reinterpret_cast<uint8_t*>(record.data()) + 3);
    return record;
}

NameSegments splitReceiverName(const QString& name) {
    const QByteArray bytes = name.toUtf8();
    if (bytes.size() <= kFirstSegmentBytes) return {bytes, {}};
    return {bytes.left(kFirstSegmentBytes), bytes.mid(kFirstSegmentBytes, kSecondSegmentBytes)};
}

}  // namespace lumerix
