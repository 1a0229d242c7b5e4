// DES-CFB64 wrappers: round trips, statelessness, parity, and agreement with the openssl tool.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QTemporaryFile>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "receiver/DesCfb.h"
#include "receiver/LumerixKeys.h"

namespace lumerix {
namespace {

std::vector<uint8_t> pattern(int n, uint8_t seed) {
    std::vector<uint8_t> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[static_cast<size_t>(i)] = static_cast<uint8_t>(seed + i * 37);
    return v;
}

std::vector<uint8_t> run(bool encrypt, const uint8_t* key, const std::vector<uint8_t>& in) {
    std::vector<uint8_t> out(in.size() + 8, 0xEE);  // guard bytes catch over-long writes
    const auto n = static_cast<int32_t>(in.size());
    const int r =
        encrypt ? DESEncrypt(key, in.data(), n, out.data()) : DESDecrypt(key, in.data(), n, out.data());
    EXPECT_EQ(r, n);
    for (size_t i = in.size(); i < out.size(); ++i)
        EXPECT_EQ(out[i], 0xEE) << "wrote past the output at " << i;
    out.resize(in.size());
    return out;
}

TEST(DesCfb, RoundTripsEveryLength) {
    for (int n = 0; n <= 256; ++n) {
        const auto plain = pattern(n, static_cast<uint8_t>(n));
        const auto cipher = run(true, kLumerixAdvertisementKey, plain);
        if (n >= 8) {
            EXPECT_NE(cipher, plain) << n;
        }
        EXPECT_EQ(run(false, kLumerixAdvertisementKey, cipher), plain) << n;
    }
}

TEST(DesCfb, StatelessAndParityBlind) {
    const auto plain = pattern(45, 3);
    const auto first = run(true, kLumerixAdvertisementKey, plain);
    EXPECT_EQ(run(true, kLumerixAdvertisementKey, plain), first);

    uint8_t flipped[8];
    for (int i = 0; i < 8; ++i) flipped[i] = kLumerixAdvertisementKey[i] ^ 0x01;
    EXPECT_EQ(run(true, flipped, plain), first);

    // Only the first 8 key bytes count, and the key is left as it was.
    uint8_t longKey[16];
    for (int i = 0; i < 16; ++i) longKey[i] = kLumerixConnectionInfoKey[i];
    longKey[8] ^= 0xFF;
    EXPECT_EQ(run(true, longKey, plain), first);
    EXPECT_EQ(longKey[0], kLumerixConnectionInfoKey[0]);

    // A prefix of the plaintext gives a prefix of the ciphertext (no padding in CFB).
    const std::vector<uint8_t> head(plain.begin(), plain.begin() + 13);
    EXPECT_EQ(run(true, kLumerixAdvertisementKey, head),
              std::vector<uint8_t>(first.begin(), first.begin() + 13));

    EXPECT_EQ(DESDecrypt(kLumerixAdvertisementKey, plain.data(), -1, nullptr), -1);
}

// The openssl command line tool as an independent implementation; key and IV are the
// parity-adjusted key block.
bool haveOpenssl() { return std::system("command -v openssl >/dev/null 2>&1") == 0; }

std::optional<QByteArray> opensslCfb(bool encrypt, const QByteArray& input) {
    QByteArray key(reinterpret_cast<const char*>(kLumerixAdvertisementKey), 8);
    for (char& c : key) {
        const auto b = static_cast<uint8_t>(static_cast<uint8_t>(c) & 0xFE);
        int ones = 0;
        for (int bit = 1; bit < 8; ++bit) ones += (b >> bit) & 1;
        c = static_cast<char>(b | ((ones % 2 == 0) ? 1 : 0));
    }
    QTemporaryFile in;
    if (!in.open() || in.write(input) != input.size() || !in.flush()) return std::nullopt;
    const std::string hex = key.toHex().toStdString();
    const std::string cmd = std::string("openssl enc -des-cfb ") + (encrypt ? "-e" : "-d") + " -K " + hex +
                            " -iv " + hex + " -nopad -provider legacy -provider default -in '" +
                            in.fileName().toStdString() + "' 2>/dev/null";
    FILE* pipe = popen(cmd.c_str(), "r");
    if (!pipe) return std::nullopt;
    QByteArray out;
    char buf[256];
    size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, static_cast<qsizetype>(got));
    if (pclose(pipe) != 0) return std::nullopt;
    return out;
}

TEST(DesCfb, AgreesWithOpensslTool) {
    if (!haveOpenssl()) GTEST_SKIP() << "the openssl tool is not installed";
    for (int n : {1, 6, 7, 8, 9, 15, 16, 17, 29, 64, 255}) {
        const auto plain = pattern(n, 11);
        const QByteArray plainBytes(reinterpret_cast<const char*>(plain.data()), n);
        const auto ours = run(true, kLumerixAdvertisementKey, plain);
        const QByteArray oursBytes(reinterpret_cast<const char*>(ours.data()), n);

        const auto theirsEnc = opensslCfb(true, plainBytes);
        ASSERT_TRUE(theirsEnc.has_value()) << "openssl enc failed for length " << n;
        EXPECT_EQ(*theirsEnc, oursBytes) << "encrypt, length " << n;

        const auto theirsDec = opensslCfb(false, oursBytes);
        ASSERT_TRUE(theirsDec.has_value()) << "openssl dec failed for length " << n;
        EXPECT_EQ(*theirsDec, plainBytes) << "decrypt, length " << n;
    }
}

}  // namespace
}  // namespace lumerix
