#pragma once
// Building advertisement records the way receivers do: company identifier (little-endian), the
// segment byte (high nibble: segment count, low nibble: segment index), then the DES-CFB64
// ciphertext of IPv4 address, two login-code bytes and a name segment. Used by the simulated
// central, tests and benchmarks; the decoder is QVLumerixHandler::decrytLumerixItem.
#include <QByteArray>
#include <QString>
#include <array>
#include <cstdint>
#include <utility>

#include "receiver/LumerixRecords.h"

namespace lumerix {

inline constexpr uint8_t kSegmentSingle = 0x11;
inline constexpr uint8_t kSegmentFirstOfTwo = 0x21;
inline constexpr uint8_t kSegmentSecondOfTwo = 0x22;

QByteArray makeLumerixRecord(uint8_t segmentByte, const std::array<uint8_t, 4>& ipv4, uint8_t code1,
                             uint8_t code2, const QByteArray& nameSegment, uint16_t companyId = 0xFFFF);

// A receiver name as it goes on air: one segment when it fits in kFirstSegmentBytes UTF-8 bytes,
// else the first kFirstSegmentBytes bytes and up to kSecondSegmentBytes of the rest.
struct NameSegments {
    QByteArray first;
    QByteArray second;  // empty for a one-segment name
    bool twoSegments() const { return !second.isEmpty(); }
};
NameSegments splitReceiverName(const QString& name);

}  // namespace lumerix
