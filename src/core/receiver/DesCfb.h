#pragma once
// Single DES in 64-bit cipher-feedback mode, as receivers encrypt their advertisement records.
// The feedback register starts from the parity-adjusted key itself, so callers give no IV; every
// call starts afresh from the key. Exactly `length` bytes go to `output`; the result is `length`.
// Re-entrant: all state lives on the caller's stack.
#include <cstdint>

namespace lumerix {

int DESEncrypt(const uint8_t* key, const uint8_t* input, int32_t length, uint8_t* output);
int DESDecrypt(const uint8_t* key, const uint8_t* input, int32_t length, uint8_t* output);

}  // namespace lumerix
