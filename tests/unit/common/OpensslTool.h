#pragma once
// The openssl command line tool as an independent implementation to check our ciphers against.
// Run through popen rather than QProcess, whose clone-based spawn the thread sanitizer rejects.
#include <sys/wait.h>
#include <QStringList>
#include <QTemporaryFile>

#include <cstdio>
#include <optional>

namespace lumerix::test {

// `openssl enc <args>` over `input`; nullopt when the tool is missing or fails, unless
// keepFailedOutput asks for what a failing run wrote.
inline std::optional<QByteArray> opensslEnc(const QStringList& args, const QByteArray& input,
                                            bool keepFailedOutput = false) {
    QTemporaryFile in;
    if (!in.open() || in.write(input) != input.size() || !in.flush()) return std::nullopt;
    const QString cmd =
        QStringLiteral("openssl enc %1 -in '%2' 2>/dev/null").arg(args.join(QLatin1Char(' ')), in.fileName());
    FILE* pipe = popen(cmd.toLocal8Bit().constData(), "r");
    if (!pipe) return std::nullopt;
    QByteArray out;
    char buf[256];
    size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, static_cast<qsizetype>(got));
    const int status = pclose(pipe);
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) == 127) return std::nullopt;  // no tool
    if (status != 0 && !keepFailedOutput) return std::nullopt;
    return out;
}

}  // namespace lumerix::test
