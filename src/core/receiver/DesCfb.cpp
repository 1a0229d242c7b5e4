// The legacy DES interface is deprecated in OpenSSL 3 but still shipped; receivers need exactly it.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "receiver/DesCfb.h"

#include <openssl/des.h>

#include <cstring>

namespace lumerix {
namespace {

int desCfb64(const uint8_t* key, const uint8_t* input, int32_t length, uint8_t* output, int direction) {
    // The cipher would treat a negative count as a huge one; no caller passes one.
    if (length < 0) return length;
    DES_cblock block;
    std::memcpy(block, key, sizeof block);
    DES_set_odd_parity(&block);
    DES_key_schedule schedule;
    // Weak or badly parity-ed keys are not an error here: the key is fixed by the receivers.
    (void)DES_set_key_checked(&block, &schedule);
    int num = 0;
    // The parity-adjusted key block doubles as the feedback register (the IV).
    DES_cfb64_encrypt(input, output, static_cast<long>(length), &schedule, &block, &num, direction);
    return length;
}

}  // namespace

int DESEncrypt(const uint8_t* key, const uint8_t* input, int32_t length, uint8_t* output) {
    return desCfb64(key, input, length, output, DES_ENCRYPT);
}

int DESDecrypt(const uint8_t* key, const uint8_t* input, int32_t length, uint8_t* output) {
    return desCfb64(key, input, length, output, DES_DECRYPT);
}

}  // namespace lumerix
