#include "platform/linux/SyslogSink.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdio>

namespace lumerix {

SyslogSink::SyslogSink() : mirror_(isatty(STDERR_FILENO) == 1) { openlog("lumerix", LOG_PID, LOG_USER); }
SyslogSink::~SyslogSink() { closelog(); }

void SyslogSink::write(const QString& line) {
    QByteArray bytes = line.toUtf8();
    while (bytes.endsWith('\n')) bytes.chop(1);
    syslog(LOG_NOTICE, "%s", bytes.constData());
    if (mirror_) std::fprintf(stderr, "%s\n", bytes.constData());
}

}  // namespace lumerix
