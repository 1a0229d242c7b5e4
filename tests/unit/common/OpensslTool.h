#pragma once
// The openssl command line tool as an independent implementation to check our ciphers against.
#include <QProcess>
#include <QStringList>
#include <optional>

namespace lumerix::test {

// `openssl enc <args>` over `input`; nullopt when the tool is missing or fails.
inline std::optional<QByteArray> opensslEnc(const QStringList& args, const QByteArray& input) {
    QProcess p;
    p.start(QStringLiteral("openssl"), QStringList{QStringLiteral("enc")} + args);
    if (!p.waitForStarted()) return std::nullopt;
    p.write(input);
    p.closeWriteChannel();
    if (!p.waitForFinished(30000) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0)
        return std::nullopt;
    return p.readAllStandardOutput();
}

}  // namespace lumerix::test
