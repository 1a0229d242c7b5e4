#pragma once
// The static keys receivers use. The advertisement key is the first 8 bytes of the 16-byte
// connection-info key.
#include <cstdint>

namespace lumerix {

inline constexpr uint8_t kLumerixConnectionInfoKey[16] = {0x9d, 0x27, 0xe4, 0xa0, 0x5b, 0x13, 0xc8, 0x6f,
                                                          0x41, 0xc0, 0x7b, 0xe3, 0x92, 0x5a, 0xd1, 0xf0};
inline constexpr const uint8_t* kLumerixAdvertisementKey = kLumerixConnectionInfoKey;
inline constexpr int kLumerixAdvertisementKeyLength = 8;

}  // namespace lumerix
