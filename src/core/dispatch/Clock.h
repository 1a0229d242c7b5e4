#pragma once
// Every "now" in the program comes from a Clock, so tests can run on virtual time.
#include <memory>

namespace lumerix {

class Clock {
public:
    virtual ~Clock() = default;
    // Wall-clock time in milliseconds since 1 January 1970.
    virtual double nowMs() const = 0;
    // Monotonic time in milliseconds from an arbitrary origin; used for waits and timers.
    virtual double monotonicMs() const = 0;
};

class SystemClock final : public Clock {
public:
    double nowMs() const override;
    double monotonicMs() const override;
};

std::shared_ptr<Clock> systemClock();

}  // namespace lumerix
