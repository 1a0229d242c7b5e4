#pragma once
// Builds what a receiver serves over GATT: the header value and the AES-128-ECB ciphertext of the
// five joined fields, cut into data characteristic values.
#include <openssl/evp.h>

#include <QByteArray>
#include <cstdint>

#include "receiver/LumerixKeys.h"

namespace lumerix::test {

inline QByteArray aesEcbEncrypt(const QByteArray& plain, const uint8_t* key = kLumerixConnectionInfoKey) {
    QByteArray out(plain.size(), '\0');
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int n = 0;
    int tail = 0;
    EVP_EncryptInit_ex(ctx, EVP_aes_128_ecb(), nullptr, key, nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    EVP_EncryptUpdate(ctx, reinterpret_cast<unsigned char*>(out.data()), &n,
                      reinterpret_cast<const unsigned char*>(plain.constData()),
                      static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(out.data()) + n, &tail);
    EVP_CIPHER_CTX_free(ctx);
    return out;
}

struct ConnectionFields {
    QByteArray ssid, key, ip, name, loginCode;
    QByteArray joined() const { return ssid + key + ip + name + loginCode; }
};

// Zero-padded to whole blocks, encrypted.
inline QByteArray encryptFields(const ConnectionFields& f) {
    QByteArray plain = f.joined();
    plain.append(QByteArray((16 - plain.size() % 16) % 16, '\0'));
    return aesEcbEncrypt(plain);
}

// Header value: flags byte, the last data index/count, then the five lengths, complemented when
// byte0 has bit 0x40.
inline QByteArray headerValue(uint8_t byte0, uint8_t byte1, const ConnectionFields& f) {
    const bool inverted = (byte0 & 0x40) != 0;
    QByteArray h;
    h.append(static_cast<char>(byte0));
    h.append(static_cast<char>(byte1));
    for (const QByteArray* field : {&f.ssid, &f.key, &f.ip, &f.name, &f.loginCode}) {
        auto len = static_cast<uint8_t>(field->size());
        h.append(static_cast<char>(inverted ? static_cast<uint8_t>(~len) : len));
    }
    return h;
}

}  // namespace lumerix::test
