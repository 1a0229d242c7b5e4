#include "dispatch/Clock.h"

#include <chrono>

namespace lumerix {

double SystemClock::nowMs() const {
    using namespace std::chrono;
    return static_cast<double>(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count()) /
           1000.0;
}

double SystemClock::monotonicMs() const {
    using namespace std::chrono;
    return static_cast<double>(duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count()) /
           1000.0;
}

std::shared_ptr<Clock> systemClock() {
    static std::shared_ptr<Clock> clock = std::make_shared<SystemClock>();
    return clock;
}

}  // namespace lumerix
