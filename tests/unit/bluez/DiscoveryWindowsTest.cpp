// When the radio scans: a window at the start of each rescan cycle, no pause while someone looks
// or just after a boost, and nothing while audio streams unless someone looks. Driven like the
// handler drives the central: a stop and a new request every 15 s, on virtual time.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "ble/ScanDemand.h"
#include "dispatch/ManualQueue.h"
#include "platform/bluez/DiscoveryWindows.h"
#include "receiver/QVLumerixHandler.h"
#include "shell/AppDelegate.h"

namespace lumerix {
namespace {

constexpr double kCycleMs = QVLumerixHandler::kRescanIntervalMs;

enum class Act { Boost, Look, StopLooking, Nudge, AudioOn, AudioOff, StopScan };

struct Step {
    double atS;
    Act act;
};
struct Probe {
    double atS;
    bool on;
};

class Rig {
public:
    Rig()
        : queue_(time_, "intake"),
          demand_(std::make_shared<ScanDemand>()),
          windows_(queue_, demand_, [this](bool on) {
              EXPECT_NE(on, on_) << "the radio is told only of changes";
              on_ = on;
              if (on)
                  onSinceMs_ = now();
              else
                  onMs_ += now() - onSinceMs_;
          }) {
        demand_->addListener([this] { windows_.demandChanged(); });
    }

    double now() const { return time_.monotonicMs(); }
    // Runs until atMs, with a stop and a new request at every cycle start, as the handler does.
    void runTo(double atMs) {
        while (now() < atMs) {
            const double nextCycle = (std::floor(now() / kCycleMs) + 1) * kCycleMs;
            if (nextCycle > atMs) {
                time_.advance(atMs - now());
                break;
            }
            time_.advance(nextCycle - now());
            if (requesting_) {
                windows_.scanStopped();
                windows_.scanRequested();
            }
        }
    }
    void act(Act a) {
        switch (a) {
            case Act::Boost:
                windows_.boost();
                break;
            case Act::Look:
                look_ = demand_->hold();
                break;
            case Act::StopLooking:
                look_.reset();
                break;
            case Act::Nudge:
                demand_->nudge();
                break;
            case Act::AudioOn:
                windows_.setAudioActive(true);
                break;
            case Act::AudioOff:
                windows_.setAudioActive(false);
                break;
            case Act::StopScan:
                requesting_ = false;
                windows_.scanStopped();
                break;
        }
    }
    void start() {
        requesting_ = true;
        windows_.scanRequested();
    }
    bool on() const { return on_; }
    double onMs() const { return onMs_ + (on_ ? now() - onSinceMs_ : 0); }

private:
    VirtualTime time_;
    ManualQueue queue_;
    std::shared_ptr<ScanDemand> demand_;
    DiscoveryWindows windows_;
    ScanDemand::Hold look_;
    bool requesting_ = false;
    bool on_ = false;
    double onSinceMs_ = 0;
    double onMs_ = 0;
};

TEST(DiscoveryWindows, TheRadioScansInWindowsUnlessSomeoneLooks) {
    struct Case {
        std::string name;
        std::vector<Step> steps;  // before the first request when at 0
        std::vector<Probe> probes;
    };
    constexpr bool on = true, off = false;
    const std::vector<Case> cases = {
        {"nobody looks: the first third of each cycle",
         {},
         {{0.1, on}, {4.9, on}, {5.1, off}, {14.9, off}, {15.1, on}, {19.9, on}, {20.1, off}}},
        {"after launch or power-on: no pause for 20 s, then windows",
         {{0, Act::Boost}},
         {{5.1, on}, {14.9, on}, {19.9, on}, {20.1, off}, {29.9, off}, {30.1, on}, {35.1, off}}},
        {"menu open: no pause; closed: the pause comes back at once",
         {{6, Act::Look}, {40, Act::StopLooking}},
         {{5.9, off}, {6.1, on}, {14.9, on}, {39.9, on}, {40.1, off}, {45.1, on}, {50.1, off}}},
        {"a query nudges: 20 s without pause from then",
         {{7, Act::Nudge}},
         {{6.9, off}, {7.1, on}, {26.9, on}, {27.1, off}, {30.1, on}}},
        {"audio streams and nobody looks: no discovery, not even after launch",
         {{0, Act::Boost}, {0, Act::AudioOn}},
         {{0.1, off}, {15.1, off}, {30.1, off}, {59.0, off}}},
        {"audio streams and the menu opens: discovery while it is open",
         {{0, Act::AudioOn}, {16, Act::Look}, {22, Act::StopLooking}},
         {{15.1, off}, {16.1, on}, {21.9, on}, {22.1, off}}},
        {"audio ends inside a window: the rest of the window scans",
         {{0, Act::AudioOn}, {17, Act::AudioOff}},
         {{16.9, off}, {17.1, on}, {19.9, on}, {20.1, off}, {30.1, on}}},
        {"scanning stopped: nothing, even while someone looks",
         {{2, Act::StopScan}, {3, Act::Look}},
         {{1.9, on}, {2.1, off}, {15.1, off}, {40, off}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig;
        size_t step = 0;
        while (step < c.steps.size() && c.steps[step].atS == 0) rig.act(c.steps[step++].act);
        rig.start();
        for (const Probe& p : c.probes) {
            while (step < c.steps.size() && c.steps[step].atS <= p.atS) {
                rig.runTo(c.steps[step].atS * 1000.0);
                rig.act(c.steps[step++].act);
            }
            rig.runTo(p.atS * 1000.0);
            EXPECT_EQ(rig.on(), p.on) << "at " << p.atS << " s";
        }
    }
}

// Idle, the radio scans at most a third of the time, and a receiver in range is heard at every
// cycle start: never longer unheard than the 20 s after which the tray drops a receiver.
TEST(DiscoveryWindows, IdleDutyIsAThirdAndEveryCycleHearsEachReceiver) {
    Rig rig;
    rig.act(Act::Boost);
    rig.start();
    rig.runTo(20000);  // past the launch boost
    const double onBefore = rig.onMs();
    std::vector<double> windowStarts;
    bool wasOn = rig.on();
    for (double t = 20000; t <= 140000; t += 100) {
        rig.runTo(t);
        if (rig.on() && !wasOn) windowStarts.push_back(t);
        wasOn = rig.on();
    }
    EXPECT_LE((rig.onMs() - onBefore) / 120000.0, 0.34);
    ASSERT_GE(windowStarts.size(), 7u);
    // Heard at the start of a window at the latest a few seconds in (bluetoothd reports each
    // device at discovery start): the longest silence is the distance between window starts plus
    // that delay, which must stay under the aging limit.
    constexpr double kReportDelayMs = 3000;
    for (size_t i = 1; i < windowStarts.size(); ++i)
        EXPECT_LT(windowStarts[i] - windowStarts[i - 1] + kReportDelayMs, AppDelegate::kReceiverTimeoutMs);
}

TEST(ScanDemand, HoldsCountAndEveryChangeIsHeardUntilTheListenerGoes) {
    auto demand = std::make_shared<ScanDemand>();
    int heard = 0;
    const int id = demand->addListener([&] { ++heard; });
    ScanDemand::Hold menu = demand->hold();
    ScanDemand::Hold query = demand->hold();
    EXPECT_TRUE(demand->isLooking());
    menu.reset();
    EXPECT_TRUE(demand->isLooking()) << "one hold is left";
    query.reset();
    EXPECT_FALSE(demand->isLooking());
    demand->nudge();
    EXPECT_EQ(demand->nudges(), 1u);
    EXPECT_EQ(heard, 5);
    demand->removeListener(id);
    ScanDemand::Hold late = demand->hold();
    EXPECT_EQ(heard, 5);
    // A hold outliving every other owner keeps the demand alive until it is released.
    std::weak_ptr<ScanDemand> weak = demand;
    demand.reset();
    EXPECT_FALSE(weak.expired());
    late.reset();
    EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace lumerix
