#pragma once
// AES-128 in ECB mode without padding, as receivers encrypt their GATT connection info.
// Results are status codes in the style of the platform crypto call, so callers can tell a
// ciphertext whose length is not a multiple of the block size from other failures.
// An input whose length is not a multiple of the block size has its whole blocks decrypted and
// written before AlignmentError is reported, as the platform call does; on any other failure
// nothing is written to the output.
#include <cstddef>
#include <cstdint>

namespace lumerix {

enum class AesStatus : int {
    Success = 0,
    ParamError,      // null key, or null buffers with a non-zero length
    BufferTooSmall,  // the output capacity is below the input length
    AlignmentError,  // the input length is not a multiple of the 16-byte block size; the whole
                     // blocks were decrypted
    CryptoError,     // the crypto library failed
};

struct AesResult {
    AesStatus status = AesStatus::ParamError;
    // Bytes written on Success and AlignmentError; the needed size on BufferTooSmall.
    size_t dataOutMoved = 0;
};

inline constexpr size_t kAesBlockSize = 16;

AesResult aes128EcbDecrypt(const uint8_t* key16, const uint8_t* in, size_t inLength, uint8_t* out,
                           size_t outCapacity);

const char* aesStatusName(AesStatus status);

}  // namespace lumerix
