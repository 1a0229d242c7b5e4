#pragma once
// Fixed-size records of a receiver: the advertisement decoding state and the GATT header and data.
#include <cstdint>
#include <cstring>

namespace lumerix {

// A receiver name travels in up to two advertisement segments: the first carries at most
// kFirstSegmentBytes bytes, the second at most kSecondSegmentBytes (both UTF-8, no terminator).
inline constexpr int kFirstSegmentBytes = 16;
inline constexpr int kSecondSegmentBytes = 31;

// Advertisement decoding state of one receiver.
struct LumerixStructV2 {
    char ipAddress[64];
    char loginCode[8];
    // Segment 1 from byte 0, segment 2 from byte kFirstSegmentBytes; each zero-terminated.
    char receiverName[kFirstSegmentBytes + kSecondSegmentBytes + 1];
    uint8_t receivedSegments;  // bit 1: segment 1 seen, bit 2: segment 2 seen
};

// GATT header characteristic, decoded.
struct LumerixHeaderStruct {
    uint16_t HeaderFlags;
    uint16_t LastDataIndex;
    uint16_t LengthOfSSID;
    uint16_t LengthOfWiFiPW;
    uint16_t LengthOfIP;
    uint16_t LengthOfReceiverName;
    uint16_t LengthOfLogincode;
};

// GATT connection information, decrypted. Fields are byte strings without a length.
struct LumerixStruct {
    char WiFiSSID[32];
    char WiFiKey[64];
    char ReceiverIP[20];
    char ReceiverName[40];
    char ReceiverLoginCode[20];
};

static_assert(sizeof(LumerixStructV2) == 121);
static_assert(sizeof(LumerixHeaderStruct) == 14);
static_assert(sizeof(LumerixStruct) == 176);

// Item status codes carried by status-change notifications.
enum LumerixItemStatus : int {
    LumerixItemDisconnected = 0,
    LumerixItemConnected = 1,
    LumerixItemResolved = 2,
    LumerixItemUpdated = 3,
};

}  // namespace lumerix
