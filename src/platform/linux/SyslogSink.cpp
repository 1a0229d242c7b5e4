#include "platform/linux/SyslogSink.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <QByteArray>
#include <cstdio>
#include <memory>

#include "text/DisplayText.h"

namespace lumerix {

namespace {
// Without a syslog socket (containers, minimal systems) the lines would be lost: use stderr too.
bool syslogReachable() {
    struct stat st {};
    return stat("/dev/log", &st) == 0 && S_ISSOCK(st.st_mode);
}
}  // namespace

SyslogSink::SyslogSink() : mirror_(isatty(STDERR_FILENO) == 1 || !syslogReachable()) {
    openlog("lumerix", LOG_PID, LOG_USER);
}
SyslogSink::~SyslogSink() { closelog(); }

void SyslogSink::write(const QString& line) {
    // Lines quote names from the air: nothing in them may act on a terminal or a log viewer.
    QByteArray bytes = DisplayText::inertLines(line).toUtf8();
    while (bytes.endsWith('\n')) bytes.chop(1);
    syslog(LOG_NOTICE, "%s", bytes.constData());
    if (mirror_) std::fprintf(stderr, "%s\n", bytes.constData());
}

void installSystemLogSink() {
    if (qgetenv("LUMERIX_LOG") == "stderr")
        Log::setSink(std::make_shared<StderrLogSink>());
    else
        Log::setSink(std::make_shared<SyslogSink>());
}

}  // namespace lumerix
