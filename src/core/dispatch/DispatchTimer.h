#pragma once
// Repeating timers that run a block on a serial queue: first firing one interval after creation,
// then every interval, until cancelled. A cancelled timer never runs its block again, not even a
// firing that was already due.
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "dispatch/DispatchQueue.h"

namespace lumerix {

class DispatchTimer : public std::enable_shared_from_this<DispatchTimer> {
public:
    // Timer firings may come up to this late.
    static constexpr double kLeewayMs = 100.0;

    DispatchTimer(DispatchQueue* queue, std::function<void()> block, double intervalMs);
    ~DispatchTimer();
    void start();
    void cancel();
    bool isCancelled() const;
    double intervalMs() const { return intervalMs_; }

private:
    void fire();

    DispatchQueue* queue_;
    std::function<void()> block_;
    const double intervalMs_;
    mutable std::mutex mutex_;
    bool cancelled_ = false;
    double nextDue_ = 0;  // on the queue clock's monotonic time
    TaskHandle pending_;
};
using DispatchTimerRef = std::shared_ptr<DispatchTimer>;

// The started timer, or null when it cannot be created (no queue, no block, bad interval).
DispatchTimerRef CreateDispatchTimer(DispatchQueue* queue, std::function<void()> block,
                                     double intervalSeconds);

struct GCDTimer {
    static DispatchTimerRef dispatchTimerForInterval(uint64_t seconds, DispatchQueue* queue,
                                                     std::function<void()> block);
    static void cancelDispatchedTimer(const DispatchTimerRef& timer);
};

}  // namespace lumerix
