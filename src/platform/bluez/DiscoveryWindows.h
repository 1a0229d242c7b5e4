#pragma once
// When the radio scans. Discovery holds the radio all the time it runs (an active scan, window =
// interval), which makes Bluetooth headphones stutter and bonded mice and keyboards slow to come
// back. So a scan is a window at the start of each rescan cycle, then a pause until the next
// cycle: with the defaults the radio scans a third of the time while nobody looks.
//
// No pause while someone looks (ScanDemand), and for a while after a boost (launch, Bluetooth
// coming back, a nudge of the demand). While a Bluetooth audio stream is active no discovery at
// all unless someone looks.
//
// The window is long enough to hear every receiver: bluetoothd reports each device at every
// discovery start and about once per 10.24 s after, so each receiver is heard once per cycle,
// well inside the 20 s after which an unheard receiver leaves the list.
//
// Pure logic on a DispatchQueue and its clock; the owner turns the decisions into
// StartDiscovery/StopDiscovery. Not thread-safe: every call on the queue's thread.
#include <functional>
#include <memory>

#include "dispatch/DispatchQueue.h"

namespace lumerix {

class ScanDemand;

class DiscoveryWindows final {
public:
    struct Timing {
        double windowMs = 5000.0;  // discovery at the start of each cycle
        double boostMs = 20000.0;  // no pause after launch, power-on, wake or a nudge
    };
    // Called with true when discovery should run, false when it should stop; only on changes.
    using Radio = std::function<void(bool on)>;

    DiscoveryWindows(DispatchQueue& queue, std::shared_ptr<ScanDemand> demand, Radio radio);
    DiscoveryWindows(DispatchQueue& queue, std::shared_ptr<ScanDemand> demand, Radio radio, Timing timing);
    ~DiscoveryWindows();
    DiscoveryWindows(const DiscoveryWindows&) = delete;
    DiscoveryWindows& operator=(const DiscoveryWindows&) = delete;

    // The scan was asked for: a new cycle, so a new window. Asked again, the window starts over.
    void scanRequested();
    // The scan was stopped: no discovery until the next request.
    void scanStopped();
    // Look without pause for the boost time from now.
    void boost();
    // A Bluetooth audio stream started or ended.
    void setAudioActive(bool active);
    // The demand changed (looking, or a nudge); re-read it.
    void demandChanged();
    // Discovery ended by itself (power, adapter or bluetoothd gone): run again only when told to.
    void radioLost();

    bool wantsDiscovery() const { return on_; }

private:
    bool decide(double now) const;
    void update();
    void scheduleAt(double deadline);

    DispatchQueue& queue_;
    std::shared_ptr<ScanDemand> demand_;
    Radio radio_;
    Timing timing_;
    bool requested_ = false;
    bool audio_ = false;
    bool on_ = false;
    double windowEnd_ = -1;  // monotonic ms
    double boostEnd_ = -1;
    uint64_t nudgesSeen_ = 0;
    TaskHandle timer_;
    double timerAt_ = -1;
};

}  // namespace lumerix
