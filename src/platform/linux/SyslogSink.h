#pragma once
// Log lines to syslog (ident "lumerix"), mirrored to stderr when stderr is a terminal or when
// there is no syslog socket to write to.
#include "log/Log.h"

namespace lumerix {

class SyslogSink final : public LogSink {
public:
    SyslogSink();
    ~SyslogSink() override;
    void write(const QString& line) override;

private:
    bool mirror_;
};

// The program's log sink, installed first by every mode: syslog, or stderr alone when the
// environment says LUMERIX_LOG=stderr.
void installSystemLogSink();

}  // namespace lumerix
