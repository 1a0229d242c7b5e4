#include <gtest/gtest.h>

#include <QByteArray>

#include "common/OpensslTool.h"
#include "gatt/GattPayload.h"
#include "receiver/AesEcb.h"
#include "receiver/LumerixKeys.h"

namespace lumerix {
namespace {

const uint8_t* u8(const QByteArray& b) { return reinterpret_cast<const uint8_t*>(b.constData()); }

// The openssl command line is an independent implementation of the same cipher.
TEST(AesEcb, MatchesOpensslCommandLineWithTheReceiverKey) {
    const QByteArray plain = QByteArray("Lab-WiFis3cret-key192.168.1.20Room 41234").leftJustified(64, '.');
    ASSERT_EQ(plain.size() % 16, 0);
    const QString keyHex =
        QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(kLumerixConnectionInfoKey), 16).toHex());
    const auto tool = test::opensslEnc(
        {QStringLiteral("-aes-128-ecb"), QStringLiteral("-nopad"), QStringLiteral("-K"), keyHex}, plain);
    ASSERT_TRUE(tool.has_value()) << "openssl enc failed";
    const QByteArray cipher = *tool;
    ASSERT_EQ(cipher.size(), plain.size());

    uint8_t out[256] = {};
    const AesResult r =
        aes128EcbDecrypt(kLumerixConnectionInfoKey, u8(cipher), cipher.size(), out, sizeof out);
    EXPECT_EQ(r.status, AesStatus::Success);
    EXPECT_EQ(r.dataOutMoved, static_cast<size_t>(cipher.size()));
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(out), plain.size()), plain);
    EXPECT_EQ(test::aesEcbEncrypt(plain), cipher);  // the tests' own encryptor agrees
}

// A length that is not a multiple of 16: the whole blocks come out, as with the platform call and
// `openssl enc -d -nopad`, which writes them before it reports the partial block; the rest of the
// output area is left as it was.
TEST(AesEcb, APartialLastBlockStillYieldsTheWholeBlocksBeforeIt) {
    const QByteArray plain = QByteArray("192.168.1.20Room 4Lab-WiFis3cret").leftJustified(48, '.');
    const QByteArray cipher = test::aesEcbEncrypt(plain);
    const QString keyHex =
        QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(kLumerixConnectionInfoKey), 16).toHex());
    for (const int length : {1, 20, 47}) {
        SCOPED_TRACE(length);
        const QByteArray input = cipher.left(length);
        const int whole = length / 16 * 16;
        uint8_t out[64] = {};
        const AesResult r =
            aes128EcbDecrypt(kLumerixConnectionInfoKey, u8(input), input.size(), out, sizeof out);
        EXPECT_EQ(r.status, AesStatus::AlignmentError);
        EXPECT_EQ(r.dataOutMoved, static_cast<size_t>(whole));
        EXPECT_EQ(QByteArray(reinterpret_cast<char*>(out), whole), plain.left(whole));
        EXPECT_EQ(QByteArray(reinterpret_cast<char*>(out) + whole, 16), QByteArray(16, '\0'));
        const auto tool = test::opensslEnc({QStringLiteral("-d"), QStringLiteral("-aes-128-ecb"),
                                            QStringLiteral("-nopad"), QStringLiteral("-K"), keyHex},
                                           input, /*keepFailedOutput=*/true);
        EXPECT_EQ(tool, std::optional<QByteArray>(plain.left(whole)));
    }
}

}  // namespace
}  // namespace lumerix
