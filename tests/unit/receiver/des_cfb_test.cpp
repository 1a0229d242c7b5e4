// DES-CFB64 wrappers: round trips and agreement with the openssl command line tool.
#include <gtest/gtest.h>

#include <QByteArray>
#include <cstdlib>

#include "common/OpensslTool.h"
#include "receiver/DesCfb.h"
#include "receiver/LumerixKeys.h"

namespace lumerix {
namespace {

QByteArray pattern(int n) {
    QByteArray v(n, '\0');
    for (int i = 0; i < n; ++i) v[i] = static_cast<char>(11 + i * 37);
    return v;
}

QByteArray run(bool encrypt, const QByteArray& in) {
    QByteArray out(in.size() + 8, '\xEE');  // guard bytes catch over-long writes
    const auto* src = reinterpret_cast<const uint8_t*>(in.constData());
    auto* dst = reinterpret_cast<uint8_t*>(out.data());
    const auto n = static_cast<int32_t>(in.size());
    EXPECT_EQ(encrypt ? DESEncrypt(kLumerixAdvertisementKey, src, n, dst)
                      : DESDecrypt(kLumerixAdvertisementKey, src, n, dst),
              n);
    EXPECT_EQ(out.mid(in.size()), QByteArray(8, '\xEE')) << "wrote past the output";
    return out.left(in.size());
}

// Key and IV for the tool: the parity-adjusted key block.
QStringList opensslArgs(bool encrypt) {
    QByteArray key(reinterpret_cast<const char*>(kLumerixAdvertisementKey), 8);
    for (char& c : key) {
        const auto b = static_cast<uint8_t>(static_cast<uint8_t>(c) & 0xFE);
        int ones = 0;
        for (int bit = 1; bit < 8; ++bit) ones += (b >> bit) & 1;
        c = static_cast<char>(b | ((ones % 2 == 0) ? 1 : 0));
    }
    const QString hex = QString::fromLatin1(key.toHex());
    return {QStringLiteral("-des-cfb"), encrypt ? QStringLiteral("-e") : QStringLiteral("-d"),
            QStringLiteral("-K"),       hex,
            QStringLiteral("-iv"),      hex,
            QStringLiteral("-nopad"),   QStringLiteral("-provider"),
            QStringLiteral("legacy"),   QStringLiteral("-provider"),
            QStringLiteral("default")};
}

TEST(DesCfb, RoundTripsAndAgreesWithTheOpensslTool) {
    for (int n = 0; n <= 256; ++n) {
        const QByteArray plain = pattern(n);
        const QByteArray cipher = run(true, plain);
        if (n >= 8) {
            EXPECT_NE(cipher, plain) << n;
        }
        EXPECT_EQ(run(false, cipher), plain) << n;
    }
    for (int n : {1, 7, 8, 9, 17, 64, 255}) {
        const QByteArray plain = pattern(n);
        const QByteArray ours = run(true, plain);
        EXPECT_EQ(test::opensslEnc(opensslArgs(true), plain), std::optional<QByteArray>(ours))
            << "encrypt, length " << n;
        EXPECT_EQ(test::opensslEnc(opensslArgs(false), ours), std::optional<QByteArray>(plain))
            << "decrypt, length " << n;
    }
}

}  // namespace
}  // namespace lumerix
