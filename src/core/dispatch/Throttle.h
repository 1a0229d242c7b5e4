#pragma once
// Runs an action at most once per interval on a queue: the first trigger runs it at once, later
// triggers within the interval are folded into one run when the interval has passed.
#include <functional>
#include <memory>
#include <optional>

#include "dispatch/DispatchQueue.h"

namespace lumerix {

class Throttle {
public:
    // Call trigger() on `queue` only; the action runs there too.
    Throttle(DispatchQueue& queue, double intervalMs, std::function<void()> action);
    ~Throttle();
    Throttle(const Throttle&) = delete;
    Throttle& operator=(const Throttle&) = delete;

    void trigger();

private:
    void run();

    DispatchQueue& queue_;
    const double intervalMs_;
    std::function<void()> action_;
    std::optional<double> lastRunMs_;
    TaskHandle pending_;
};

}  // namespace lumerix
