#include "platform/bluez/BluezEngine.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "ble/ScanDemand.h"
#include "log/Log.h"
#include "platform/bluez/BluezInterfaces.h"
#include "platform/bluez/BluezLink.h"

namespace lumerix {

BluezEngine::BluezEngine(BleCentralDelegate* delegate, const std::shared_ptr<BluezLink>& link,
                         std::optional<QString> onlyLocalName, std::shared_ptr<ScanDemand> demand)
    : delegate_(delegate),
      link_(link),
      onlyLocalName_(std::move(onlyLocalName)),
      discovery_(queue_, std::move(demand), onlyLocalName_.value_or(QString())),
      cache_(gatt_, onlyLocalName_),
      gatt_(
          queue_, delegate, cache_.devices(),
          [this](const QString& path) { return peripherals_.value(path); },
          [this](std::function<void()> fn) { deliver(std::move(fn)); }) {
    cache_.onStateInputs = [this] { recomputeState(); };
    cache_.onNamed = [this](const QString& path) { peripheralFor(path); };
    cache_.onAdvertisement = [this](const QString& path) { reportAdvertisement(path); };
    cache_.onDeviceGone = [this](const QString& path) { forgetPeripheral(path); };
    cache_.onAudio = [this](bool active) { discovery_.setAudioActive(active); };
    // May read the adapter, may not scan.
    discovery_.onAccessDenied = [this] { cache_.setAccessDenied(); };
    // Launch (and wake, which makes a new central): look without pause for a while.
    discovery_.boost();
}

BluezEngine::~BluezEngine() { closeBus(); }

void BluezEngine::closeBus() {
    // Slots first, then the connection: closing it also ends any discovery session bluetoothd
    // keeps for it, and drops calls still waiting for their replies. It leaves the loop before it
    // goes: the loop must not keep sources of a freed connection.
    discovery_.setBus(nullptr);
    gatt_.setBus(nullptr);
    cache_.detach();
    detachBus();
    relaySource_.reset();
    bus_.reset();
    relay_.reset();
}

// --- the intake loop ----------------------------------------------------------------------------

namespace {

// Timers may fire up to this late; sd-event groups wake-ups within it.
constexpr uint64_t kTimerAccuracyUs = 1000;

uint64_t usFromMs(double ms) { return static_cast<uint64_t>(std::ceil(std::max(0.0, ms) * 1000.0)); }

}  // namespace

bool BluezEngine::setUpLoop(int wakeFd) {
    sd_event* event = nullptr;
    int r = sd_event_new(&event);
    if (r < 0) {
        Log::logf("BluezCentral: cannot make the event loop: %s", std::strerror(-r));
        return false;
    }
    event_.reset(event);
    sd_event_source* source = nullptr;
    r = sd_event_add_io(event, &source, wakeFd, EPOLLIN, &BluezEngine::onWake, this);
    wakeSource_.reset(source);
    source = nullptr;
    if (r >= 0)
        r = sd_event_add_time(event, &source, CLOCK_MONOTONIC, 0, kTimerAccuracyUs,
                              &BluezEngine::onQueueTimer, this);
    queueTimer_.reset(source);
    source = nullptr;
    if (r >= 0)
        r = sd_event_add_time(event, &source, CLOCK_MONOTONIC, 0, kTimerAccuracyUs, &BluezEngine::onResume,
                              this);
    resumeTimer_.reset(source);
    if (r >= 0) r = sd_event_source_set_enabled(queueTimer_.get(), SD_EVENT_OFF);
    if (r >= 0) r = sd_event_source_set_enabled(resumeTimer_.get(), SD_EVENT_OFF);
    if (r < 0) {
        Log::logf("BluezCentral: cannot set up the event loop: %s", std::strerror(-r));
        return false;
    }
    return true;
}

void BluezEngine::run(const std::atomic<bool>& stop) {
    auto link = link_.lock();
    if (!link || !setUpLoop(link->wakeFd())) return;
    start();
    // The stop request comes with a wake, which ends the iteration.
    while (!stop.load()) {
        flush();  // what start() or the last iteration produced
        armQueueTimer();
        ownSourceRan_ = false;
        const int r = sd_event_run(event_.get(), UINT64_MAX);
        if (r < 0) {
            Log::logf("BluezCentral: the event loop failed: %s", std::strerror(-r));
            break;
        }
        // One source runs per iteration; when it was none of ours, it was the connection's.
        if (bus_ && !sd_bus_is_open(bus_.get()))
            dropBus("the connection was closed");
        else if (r > 0 && !ownSourceRan_ && busAttached_)
            drainAndPause(true);
    }
    // Commands posted before the central went away still go out; closing the connection
    // flushes them.
    for (auto& command : link->takeCommands()) command(*this);
}

int BluezEngine::onWake(sd_event_source* /*source*/, int /*fd*/, uint32_t /*revents*/, void* userdata) {
    auto* self = static_cast<BluezEngine*>(userdata);
    self->ownSourceRan_ = true;
    if (auto link = self->link_.lock()) {
        for (auto& command : link->takeCommands()) command(*self);
    }
    return 0;
}

void BluezEngine::armQueueTimer() {
    const std::optional<double> due = queue_.nextDueMs();
    if (due == queueTimerDueMs_) return;
    queueTimerDueMs_ = due;
    if (!due) {
        sd_event_source_set_enabled(queueTimer_.get(), SD_EVENT_OFF);
        return;
    }
    // The queue's clock and the timer's are both CLOCK_MONOTONIC; rounding up keeps the timer
    // from firing before the task is due.
    sd_event_source_set_time(queueTimer_.get(), usFromMs(*due));
    sd_event_source_set_enabled(queueTimer_.get(), SD_EVENT_ONESHOT);
}

int BluezEngine::onQueueTimer(sd_event_source* /*source*/, uint64_t /*usec*/, void* userdata) {
    auto* self = static_cast<BluezEngine*>(userdata);
    self->ownSourceRan_ = true;
    self->queueTimerDueMs_.reset();  // a one-shot source is off once it fired
    self->queue_.runDue();
    return 0;
}

int BluezEngine::drain() {
    if (!bus_) return 0;
    int n = 0;
    if (relay_) {
        n = relay_->pump(bus_.get(), kMaxMessagesPerDrain, [this](const buswire::PlainAdvertisement& a) {
            cache_.deviceAdvertised(a.path, a.advertisement);
        });
        if (n < 0) return n;
    }
    for (; n < kMaxMessagesPerDrain; ++n) {
        const int r = sd_bus_process(bus_.get(), nullptr);
        if (r < 0) return r;
        if (r == 0) break;
    }
    return n;
}

void BluezEngine::pauseBus(int processed) {
    // Detached, the connection no longer wakes the loop; the resume timer takes over. A command
    // or the stop request is still served at once.
    detachBus();
    uint64_t now = 0;
    sd_event_now(event_.get(), CLOCK_MONOTONIC, &now);
    // Behind (the last pass hit its limit): no pause until the backlog is gone.
    const uint64_t delay = processed >= kMaxMessagesPerDrain ? 0 : usFromMs(kCoalescingIntervalMs);
    sd_event_source_set_time(resumeTimer_.get(), now + delay);
    sd_event_source_set_enabled(resumeTimer_.get(), SD_EVENT_ONESHOT);
}

int BluezEngine::onRelayReadable(sd_event_source* /*source*/, int /*fd*/, uint32_t /*revents*/,
                                 void* userdata) {
    auto* self = static_cast<BluezEngine*>(userdata);
    self->ownSourceRan_ = true;
    self->drainAndPause(true);
    return 0;
}

int BluezEngine::onResume(sd_event_source* /*source*/, uint64_t /*usec*/, void* userdata) {
    auto* self = static_cast<BluezEngine*>(userdata);
    self->ownSourceRan_ = true;
    self->drainAndPause(false);
    return 0;
}

void BluezEngine::drainAndPause(bool woken) {
    if (!bus_) return;
    const int n = drain();
    if (n < 0) {
        dropBus(std::strerror(-n));
    } else if (woken || n > 0) {
        pauseBus(n);  // traffic: let the next messages gather
    } else if (!attachBus()) {
        dropBus("cannot watch the connection");
    }
}

bool BluezEngine::attachBus() {
    if (!bus_ || busAttached_) return busAttached_;
    int r = sd_bus_attach_event(bus_.get(), event_.get(), SD_EVENT_PRIORITY_NORMAL);
    if (r >= 0 && relay_) {
        if (!relaySource_) {
            sd_event_source* source = nullptr;
            r = sd_event_add_io(event_.get(), &source, relay_->fd(), EPOLLIN, &BluezEngine::onRelayReadable,
                                this);
            relaySource_.reset(source);
        }
        if (r >= 0) r = sd_event_source_set_enabled(relaySource_.get(), SD_EVENT_ON);
        if (r < 0) sd_bus_detach_event(bus_.get());
    }
    if (r < 0) {
        Log::logf("BluezCentral: cannot attach the connection to the event loop: %s", std::strerror(-r));
        return false;
    }
    busAttached_ = true;
    return true;
}

void BluezEngine::detachBus() {
    if (resumeTimer_) sd_event_source_set_enabled(resumeTimer_.get(), SD_EVENT_OFF);
    if (!bus_ || !busAttached_) return;
    sd_bus_detach_event(bus_.get());
    if (relaySource_) sd_event_source_set_enabled(relaySource_.get(), SD_EVENT_OFF);
    busAttached_ = false;
}

void BluezEngine::dropBus(const char* why) {
    Log::logf("BluezCentral: the system bus connection failed: %s", why);
    closeBus();
    cache_.bluezGone();
    reconnectLater();
}

void BluezEngine::flush() {
    if (pending_.empty()) return;
    std::vector<std::function<void()>> callbacks;
    callbacks.reserve(pending_.size());
    BleCentralDelegate* delegate = delegate_;
    for (Delivery& d : pending_) {
        if (d.callback) {
            callbacks.push_back(std::move(d.callback));
        } else if (delegate) {
            callbacks.emplace_back([delegate, batch = std::move(d.advertisements)] {
                delegate->centralManagerDidDiscoverPeripherals(batch);
            });
        }
    }
    pending_.clear();
    if (auto link = link_.lock()) link->deliver(std::move(callbacks));
}

void BluezEngine::deliver(std::function<void()> fn) { pending_.push_back({std::move(fn), {}}); }

// --- connection and subscriptions ---------------------------------------------------------------

void BluezEngine::start() {
    QString error;
    relay_ = BusRelay::connectSystemBus(&bus_, &error);
    if (!relay_ && error.isEmpty()) bus_ = sdbus::openSystemBus(&error);  // not a Unix socket
    if (!bus_) {
        if (!busLost_) Log::logf("BluezCentral: cannot reach the system bus: %s", qUtf8Printable(error));
        cache_.settleWithoutBus();
        reconnectLater();
        return;
    }
    if (!attachBus()) {
        closeBus();
        cache_.settleWithoutBus();
        reconnectLater();
        return;
    }
    if (busLost_) Log::logf("BluezCentral: connected to the system bus again");
    busLost_ = false;
    reconnectMs_ = kReconnectMs;
    discovery_.setBus(bus_.get());
    gatt_.setBus(bus_.get());
    // Subscribe before the snapshot so that nothing falls between the two.
    if (!cache_.attach(bus_.get())) Log::logf("BluezCentral: could not subscribe to every org.bluez signal");
    cache_.takeSnapshot();
}

void BluezEngine::reconnectLater() {
    // Logged once per outage; the attempts go on quietly, less and less often.
    busLost_ = true;
    const double delay = reconnectMs_;
    reconnectMs_ = std::min(kMaxReconnectMs, reconnectMs_ * 2);
    queue_.after(delay, [this] {
        if (!bus_) start();
    });
}

void BluezEngine::forgetPeripheral(const QString& path) {
    auto p = peripherals_.find(path);
    if (p == peripherals_.end()) return;
    // Whatever the handler keeps for the device can go; a device that returns gets a new object
    // (its identifier, from the address, stays the same). Keeping it would hold every device ever
    // seen for as long as the program runs.
    std::shared_ptr<BluezPeripheral> peripheral = *p;
    peripherals_.erase(p);
    BleCentralDelegate* delegate = delegate_;
    if (!delegate) return;
    deliver([delegate, peripheral] { delegate->centralManagerDidForgetPeripheral(peripheral); });
}

void BluezEngine::recomputeState() {
    if (!cache_.settled()) return;
    const QString adapter = cache_.adapterPath();
    const int state = cache_.centralState();
    if (state == BleStatePoweredOn && discovery_.scanning())
        discovery_.moveTo(adapter);  // new default adapter
    if (stateReported_ && state == state_) return;
    if (state != BleStatePoweredOn) discovery_.lost();
    // Bluetooth back (power, adapter, bluetoothd): look without pause for a while.
    if (state == BleStatePoweredOn && stateReported_) discovery_.boost();
    Log::logf("BluezCentral: state %d (%s)", state, qUtf8Printable(adapter));
    state_ = state;
    stateReported_ = true;
    if (auto link = link_.lock()) link->state.store(state);
    BleCentralDelegate* delegate = delegate_;
    if (!delegate) return;
    deliver([delegate, state] { delegate->centralManagerDidUpdateState(state); });
}

// --- scanning -----------------------------------------------------------------------------------

void BluezEngine::startScan(bool allowDuplicates) {
    if (state_ != BleStatePoweredOn) {
        Log::logf("BluezCentral: scan requested while the state is %d; ignored", state_);
        return;
    }
    discovery_.start(cache_.adapterPath(), allowDuplicates);
}

void BluezEngine::stopScan() { discovery_.stop(); }

void BluezEngine::demandChanged() { discovery_.demandChanged(); }

std::shared_ptr<BluezPeripheral> BluezEngine::peripheralFor(const QString& path) {
    auto it = cache_.devices().constFind(path);
    std::shared_ptr<BluezPeripheral>& p = peripherals_[path];
    if (!p) {
        const QString id =
            it != cache_.devices().constEnd() ? bluez::identifierForDevice(path, *it) : QString();
        if (id.isEmpty()) {
            peripherals_.remove(path);
            return nullptr;
        }
        p = std::make_shared<BluezPeripheral>(path, id, link_.lock());
    }
    if (it != cache_.devices().constEnd() && it->name && p->name() != *it->name) p->setName(*it->name);
    return p;
}

void BluezEngine::reportAdvertisement(const QString& path) {
    if (!discovery_.scanning()) return;
    auto it = cache_.devices().constFind(path);
    if (it == cache_.devices().constEnd()) return;
    if (onlyLocalName_ && it->name && *it->name != *onlyLocalName_) return;
    auto peripheral = peripheralFor(path);
    if (!peripheral) {
        Log::logf("BluezCentral: device %s has no usable address; ignored", qUtf8Printable(path));
        return;
    }
    const double rssi = it->rssi ? double(*it->rssi) : kRssiNoReading;
    if (pending_.empty() || pending_.back().callback) pending_.push_back({});
    pending_.back().advertisements.push_back(
        BleDiscovery{std::move(peripheral), AdvertisementData{it->name, it->manufacturerData}, rssi});
}

// --- connections and GATT -----------------------------------------------------------------------

void BluezEngine::connectDevice(const QString& path) { gatt_.connectDevice(path); }
void BluezEngine::disconnectDevice(const QString& path) { gatt_.disconnectDevice(path); }
void BluezEngine::readRssi(const QString& path) { gatt_.readRssi(path); }
void BluezEngine::discoverServices(const QString& path) { gatt_.discoverServices(path); }
void BluezEngine::discoverCharacteristics(const QString& devicePath, const QString& servicePath) {
    gatt_.discoverCharacteristics(devicePath, servicePath);
}
void BluezEngine::readValue(const QString& devicePath, const QString& characteristicPath) {
    gatt_.readValue(devicePath, characteristicPath);
}

}  // namespace lumerix
