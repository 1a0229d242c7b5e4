#include "ble/SimulatedCentral.h"

#include <QHash>
#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <numbers>

#include "ble/StaticPeripheral.h"
#include "dispatch/DispatchQueue.h"
#include "log/Log.h"
#include "receiver/LumerixRecordCodec.h"

namespace lumerix {
namespace {

// What one scenario device sends, prepared once.
struct Player {
    SimulatedReceiver receiver;
    BlePeripheralRef peripheral;
    std::vector<AdvertisementData> advertisements;  // one, or two alternating segments
    TaskHandle pending;
    bool reportedThisScan = false;
};

}  // namespace

double SimulatedReceiver::rssiAt(uint64_t advertisement, double elapsedMs) const {
    if (rssiFunction) return rssiFunction(advertisement, elapsedMs);
    if (!rssiSequence.empty()) return rssiSequence[advertisement % rssiSequence.size()];
    return rssi;
}

SimulatedReceiver SimulatedReceiver::otherDevice(const QString& localName, double rssi, double intervalMs) {
    SimulatedReceiver r;
    r.name = localName;
    r.localName = localName;
    r.rssi = rssi;
    r.intervalMs = intervalMs;
    r.manufacturerDataOverride = QByteArray::fromHex("4c000215");
    return r;
}

SimulatedScenario SimulatedScenario::demo() {
    auto wave = [](double base, double amplitude, double periodMs) {
        return [=](uint64_t, double t) {
            return std::round(base + amplitude * std::sin(2 * std::numbers::pi * t / periodMs));
        };
    };
    SimulatedScenario s;
    SimulatedReceiver huddle;
    huddle.name = QStringLiteral("Huddle Room");
    huddle.ipv4 = {192, 168, 1, 21};
    huddle.code1 = 48;
    huddle.code2 = 15;
    huddle.rssiFunction = wave(-52, 6, 20000);
    huddle.intervalMs = 150;
    s.receivers.push_back(huddle);

    SimulatedReceiver board;
    board.name = QStringLiteral("Boardroom");
    board.ipv4 = {192, 168, 1, 22};
    board.code1 = 7;
    board.code2 = 93;
    board.rssiFunction = wave(-60, 8, 30000);
    board.intervalMs = 200;
    s.receivers.push_back(board);

    SimulatedReceiver north;
    north.name = QStringLiteral("Conference Room North Wing");
    north.ipv4 = {192, 168, 1, 23};
    north.code1 = 61;
    north.code2 = 20;
    north.rssiSequence = {-71, -70, -72, -69, -71, -73};
    north.intervalMs = 250;
    s.receivers.push_back(north);

    SimulatedReceiver studio;
    studio.name = QStringLiteral("Studio 3");
    studio.ipv4 = {192, 168, 1, 24};
    studio.code1 = 30;
    studio.code2 = 5;
    studio.rssi = -82;
    studio.intervalMs = 300;
    studio.appearAtMs = 4000;
    s.receivers.push_back(studio);

    s.receivers.push_back(SimulatedReceiver::otherDevice(QStringLiteral("Headphones"), -45));
    return s;
}

QString SimulatedCentral::identifierForIndex(size_t index) {
    return QStringLiteral("00000000-0000-0000-0000-%1")
        .arg(static_cast<qulonglong>(index) + 1, 12, 16, QLatin1Char('0'))
        .toUpper();
}

struct SimulatedCentral::Core : std::enable_shared_from_this<Core> {
    // Guards the state below; never held while the delegate runs, so a delegate may call back in.
    mutable std::mutex mutex;
    std::condition_variable idle;
    int callbacksRunning = 0;
    BleCentralDelegate* delegate = nullptr;  // null once the central is gone
    DispatchQueue* queue = nullptr;
    double origin = 0;
    std::atomic<int> state{BleStateUnknown};
    bool scanning = false;
    bool allowDuplicates = true;
    uint64_t generation = 0;
    int starts = 0;
    int stops = 0;
    uint64_t sent = 0;
    std::vector<Player> players;
    std::vector<TracedAdvertisement> trace;  // sorted by offset
    TaskHandle tracePending;
    QHash<QString, BlePeripheralRef> peripherals;
    std::vector<QString> cancelled;

    double elapsed() const { return queue->clock().monotonicMs() - origin; }

    BlePeripheralRef peripheralFor(const QString& identifier, const QString& name) {
        auto it = peripherals.find(identifier);
        if (it != peripherals.end()) return it.value();
        auto p = std::make_shared<StaticPeripheral>(identifier, name);
        peripherals.insert(identifier, p);
        return p;
    }

    // Runs `call` on the delegate with the lock released; the destructor waits for it to finish.
    void callDelegate(std::unique_lock<std::mutex>& lock,
                      const std::function<void(BleCentralDelegate&)>& call) {
        BleCentralDelegate* d = delegate;
        if (!d) return;
        ++callbacksRunning;
        lock.unlock();
        call(*d);
        lock.lock();
        if (--callbacksRunning == 0) idle.notify_all();
    }

    void report(std::function<void(BleCentralDelegate&)> call) {
        std::weak_ptr<Core> weak = weak_from_this();
        queue->async([weak, call = std::move(call)] {
            auto self = weak.lock();
            if (!self) return;
            std::unique_lock lock(self->mutex);
            self->callDelegate(lock, call);
        });
    }

    void cancelPlayers() {
        for (auto& p : players) {
            if (p.pending) p.pending->cancel();
            p.pending.reset();
        }
        if (tracePending) tracePending->cancel();
        tracePending.reset();
    }

    // Schedules the trace entry at `index`, the next one to play.
    void scheduleTrace(size_t index) {
        if (index >= trace.size()) return;
        std::weak_ptr<Core> weak = weak_from_this();
        const uint64_t gen = generation;
        tracePending = queue->after(std::max(0.0, trace[index].offsetMs - elapsed()), [weak, index, gen] {
            if (auto self = weak.lock()) self->fireTrace(index, gen);
        });
    }

    void fireTrace(size_t index, uint64_t gen) {
        std::unique_lock lock(mutex);
        if (!delegate || !scanning || gen != generation) return;
        const TracedAdvertisement& a = trace[index];
        const BlePeripheralRef peripheral = peripheralFor(a.identifier, a.data.localName.value_or(QString()));
        scheduleTrace(index + 1);
        ++sent;
        // The trace is fixed after construction, so the entry stays valid unlocked.
        callDelegate(lock, [&](BleCentralDelegate& d) {
            d.centralManagerDidDiscoverPeripheral(peripheral, a.data, a.rssi);
        });
    }

    // Schedules the player's first slot at or after now.
    void schedule(size_t index, uint64_t slot) {
        Player& p = players[index];
        const double due = p.receiver.appearAtMs + static_cast<double>(slot) * p.receiver.intervalMs;
        if (p.receiver.leaveAtMs && due >= *p.receiver.leaveAtMs) return;
        std::weak_ptr<Core> weak = weak_from_this();
        const uint64_t gen = generation;
        p.pending = queue->after(due - elapsed(), [weak, index, slot, gen] {
            if (auto self = weak.lock()) self->fire(index, slot, gen);
        });
    }

    void start() {
        const double now = elapsed();
        for (size_t i = 0; i < players.size(); ++i) {
            players[i].reportedThisScan = false;
            const SimulatedReceiver& r = players[i].receiver;
            uint64_t slot = 0;
            if (now > r.appearAtMs)
                slot = static_cast<uint64_t>(std::ceil((now - r.appearAtMs) / r.intervalMs));
            schedule(i, slot);
        }
        const auto next =
            std::lower_bound(trace.begin(), trace.end(), now,
                             [](const TracedAdvertisement& a, double t) { return a.offsetMs < t; });
        scheduleTrace(static_cast<size_t>(next - trace.begin()));
    }

    void fire(size_t index, uint64_t slot, uint64_t gen) {
        std::unique_lock lock(mutex);
        if (!delegate || !scanning || gen != generation) return;
        Player& p = players[index];
        const AdvertisementData& ad = p.advertisements[slot % p.advertisements.size()];
        const double rssi = p.receiver.rssiAt(slot, elapsed());
        schedule(index, slot + 1);
        if (!allowDuplicates && p.reportedThisScan) return;
        p.reportedThisScan = true;
        ++sent;
        // Players and their records are fixed after construction, so these stay valid unlocked.
        const BlePeripheralRef& peripheral = p.peripheral;
        callDelegate(lock, [&](BleCentralDelegate& d) {
            d.centralManagerDidDiscoverPeripheral(peripheral, ad, rssi);
        });
    }
};

SimulatedCentral::SimulatedCentral(BleCentralDelegate* delegate, DispatchQueue* queue,
                                   SimulatedScenario scenario, int initialState)
    : core_(std::make_shared<Core>()) {
    core_->delegate = delegate;
    core_->queue = queue;
    core_->origin = queue->clock().monotonicMs();
    core_->state = initialState;
    for (size_t i = 0; i < scenario.receivers.size(); ++i) {
        Player p;
        p.receiver = std::move(scenario.receivers[i]);
        if (!(p.receiver.intervalMs > 0)) p.receiver.intervalMs = 100.0;
        const QString id = p.receiver.identifier.isEmpty() ? identifierForIndex(i) : p.receiver.identifier;
        p.peripheral = core_->peripheralFor(id, p.receiver.localName.value_or(QString()));
        if (p.receiver.manufacturerDataOverride) {
            p.advertisements.push_back({p.receiver.localName, p.receiver.manufacturerDataOverride});
        } else {
            const NameSegments segments = splitReceiverName(p.receiver.name);
            auto record = [&](uint8_t segmentByte, const QByteArray& bytes) {
                return AdvertisementData{p.receiver.localName,
                                         makeLumerixRecord(segmentByte, p.receiver.ipv4, p.receiver.code1,
                                                           p.receiver.code2, bytes, p.receiver.companyId)};
            };
            if (segments.twoSegments()) {
                p.advertisements.push_back(record(kSegmentFirstOfTwo, segments.first));
                p.advertisements.push_back(record(kSegmentSecondOfTwo, segments.second));
            } else {
                p.advertisements.push_back(record(kSegmentSingle, segments.first));
            }
        }
        core_->players.push_back(std::move(p));
    }
    core_->trace = std::move(scenario.trace);
    std::stable_sort(
        core_->trace.begin(), core_->trace.end(),
        [](const TracedAdvertisement& a, const TracedAdvertisement& b) { return a.offsetMs < b.offsetMs; });
    core_->report([initialState](BleCentralDelegate& d) { d.centralManagerDidUpdateState(initialState); });
}

SimulatedCentral::~SimulatedCentral() {
    std::unique_lock lock(core_->mutex);
    core_->delegate = nullptr;
    core_->scanning = false;
    core_->cancelPlayers();
    // A callback already running on the queue finishes before its delegate may go away.
    if (!core_->queue->isCurrent()) core_->idle.wait(lock, [&] { return core_->callbacksRunning == 0; });
}

int SimulatedCentral::state() const { return core_->state.load(); }

void SimulatedCentral::scanForPeripherals(bool allowDuplicates) {
    std::lock_guard lock(core_->mutex);
    if (core_->state.load() != BleStatePoweredOn) {
        Log::logf("SimulatedCentral: scan requested while the adapter is not powered on");
        return;
    }
    // Scanning again while scanning restarts the scan with the new option, as adapters do.
    core_->cancelPlayers();
    if (core_->starts == 0 && !core_->trace.empty()) core_->origin = core_->queue->clock().monotonicMs();
    core_->scanning = true;
    core_->allowDuplicates = allowDuplicates;
    ++core_->generation;
    ++core_->starts;
    core_->start();
}

void SimulatedCentral::stopScan() {
    std::lock_guard lock(core_->mutex);
    ++core_->stops;
    core_->scanning = false;
    ++core_->generation;
    core_->cancelPlayers();
}

void SimulatedCentral::connectPeripheral(const BlePeripheralRef& peripheral) {
    if (!peripheral || state() != BleStatePoweredOn) return;
    core_->report([peripheral](BleCentralDelegate& d) { d.centralManagerDidConnectPeripheral(peripheral); });
}

void SimulatedCentral::cancelPeripheralConnection(const BlePeripheralRef& peripheral) {
    if (!peripheral) return;
    {
        std::lock_guard lock(core_->mutex);
        core_->cancelled.push_back(peripheral->identifier());
    }
    core_->report([peripheral](BleCentralDelegate& d) {
        d.centralManagerDidDisconnectPeripheral(peripheral, std::nullopt);
    });
}

void SimulatedCentral::setState(int state) {
    std::lock_guard lock(core_->mutex);
    core_->state = state;
    if (state != BleStatePoweredOn && core_->scanning) {
        core_->scanning = false;
        ++core_->generation;
        core_->cancelPlayers();
    }
    core_->report([state](BleCentralDelegate& d) { d.centralManagerDidUpdateState(state); });
}

void SimulatedCentral::injectAdvertisement(const QString& identifier, const AdvertisementData& data,
                                           double rssi) {
    std::lock_guard lock(core_->mutex);
    BlePeripheralRef p = core_->peripheralFor(identifier, data.localName.value_or(QString()));
    ++core_->sent;
    core_->report(
        [p, data, rssi](BleCentralDelegate& d) { d.centralManagerDidDiscoverPeripheral(p, data, rssi); });
}

bool SimulatedCentral::isScanning() const {
    std::lock_guard lock(core_->mutex);
    return core_->scanning;
}

int SimulatedCentral::scanStartCount() const {
    std::lock_guard lock(core_->mutex);
    return core_->starts;
}

int SimulatedCentral::scanStopCount() const {
    std::lock_guard lock(core_->mutex);
    return core_->stops;
}

uint64_t SimulatedCentral::advertisementCount() const {
    std::lock_guard lock(core_->mutex);
    return core_->sent;
}

std::vector<QString> SimulatedCentral::cancelledConnections() const {
    std::lock_guard lock(core_->mutex);
    return core_->cancelled;
}

BlePeripheralRef SimulatedCentral::peripheral(const QString& identifier) {
    std::lock_guard lock(core_->mutex);
    return core_->peripheralFor(identifier, QString());
}

BleCentralFactory simulatedCentralFactory(SimulatedScenario scenario, int initialState) {
    return
        [scenario = std::move(scenario), initialState](BleCentralDelegate* delegate, DispatchQueue* queue) {
            return std::make_unique<SimulatedCentral>(delegate, queue, scenario, initialState);
        };
}

}  // namespace lumerix
