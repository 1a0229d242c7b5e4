// Arbitrary bytes through the advertisement-trace reader, as --replay reads a file: line by line,
// with the per-line cap, skipping what does not parse. Every advertisement read is formatted again
// as a line, as --record writes it.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "QuietLog.h"
#include "ble/AdvertisementTrace.h"
#include "log/Log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    lumerix::fuzz::quietLog();
    using lumerix::AdvertisementTrace;
    const AdvertisementTrace trace = AdvertisementTrace::parse(
        QByteArray(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size)));
    if (trace.problems.size() > AdvertisementTrace::kMaxProblems) __builtin_trap();
    double last = 0;
    for (const lumerix::TracedAdvertisement& a : trace.advertisements) {
        // Played in order of time: the reader sorts what it read.
        if (a.offsetMs < last) __builtin_trap();
        last = a.offsetMs;
        (void)AdvertisementTrace::formatLine(a);
    }
    return 0;
}
