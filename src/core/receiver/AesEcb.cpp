#include "receiver/AesEcb.h"

#include <openssl/evp.h>

#include <climits>
#include <memory>

namespace lumerix {

AesResult aes128EcbDecrypt(const uint8_t* key16, const uint8_t* in, size_t inLength, uint8_t* out,
                           size_t outCapacity) {
    if (!key16 || (inLength > 0 && (!in || !out))) return {AesStatus::ParamError, 0};
    // A partial last block is reported only after the whole blocks before it are decrypted.
    const size_t whole = inLength - inLength % kAesBlockSize;
    const AesStatus done = whole == inLength ? AesStatus::Success : AesStatus::AlignmentError;
    if (whole > outCapacity) return {AesStatus::BufferTooSmall, whole};
    if (whole == 0) return {done, 0};
    if (whole > static_cast<size_t>(INT_MAX)) return {AesStatus::ParamError, 0};

    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        &EVP_CIPHER_CTX_free);
    if (!ctx) return {AesStatus::CryptoError, 0};
    if (EVP_DecryptInit_ex(ctx.get(), EVP_aes_128_ecb(), nullptr, key16, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(ctx.get(), 0) != 1)
        return {AesStatus::CryptoError, 0};
    // Whole blocks without padding decrypt to their own length; Final adds nothing.
    int moved = 0;
    int tail = 0;
    if (EVP_DecryptUpdate(ctx.get(), out, &moved, in, static_cast<int>(whole)) != 1 ||
        EVP_DecryptFinal_ex(ctx.get(), out + moved, &tail) != 1)
        return {AesStatus::CryptoError, 0};
    return {done, static_cast<size_t>(moved + tail)};
}

const char* aesStatusName(AesStatus status) {
    switch (status) {
        case AesStatus::Success:
            return "success";
        case AesStatus::ParamError:
            return "parameter error";
        case AesStatus::BufferTooSmall:
            return "buffer too small";
        case AesStatus::AlignmentError:
            return "length not a multiple of the block size";
        case AesStatus::CryptoError:
            return "crypto library failure";
    }
    return "unknown";
}

}  // namespace lumerix
