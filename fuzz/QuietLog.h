#pragma once
// Fuzz targets log nothing: each bad input would otherwise print a line.
#include <memory>

#include "log/Log.h"

namespace lumerix::fuzz {

class DropSink final : public LogSink {
public:
    void write(const QString&) override {}
};

// Call at the top of LLVMFuzzerTestOneInput; installs the sink once.
inline void quietLog() {
    static const bool quiet = [] {
        Log::setSink(std::make_shared<DropSink>());
        return true;
    }();
    (void)quiet;
}

}  // namespace lumerix::fuzz
