#include "platform/bluez/BluezEngine.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>

#include "ble/ScanDemand.h"
#include "log/Log.h"
#include "platform/bluez/BluezInterfaces.h"
#include "platform/bluez/BluezLink.h"

namespace lumerix {
namespace {

QByteArray utf8(const QString& s) { return s.toUtf8(); }

}  // namespace

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

BluezEngine::~BluezEngine() {
    // Slots first, then the connection: closing it also ends any discovery session bluetoothd
    // keeps for it, and drops calls still waiting for their replies.
    discovery_.setBus(nullptr);
    gatt_.setBus(nullptr);
    cache_.detach();
    bus_.reset();
}

// --- the intake loop ----------------------------------------------------------------------------

void BluezEngine::run(const std::atomic<bool>& stop) {
    start();
    auto link = link_.lock();
    if (!link) return;
    double lastDrainMs = -kCoalescingIntervalMs;
    while (!stop.load()) {
        const bool more = drain();
        for (auto& command : link->takeCommands()) command(*this);
        queue_.runDue();
        flush();
        lastDrainMs = monotonicMs();
        if (stop.load()) break;
        if (more) continue;  // behind: no waiting until the backlog is gone

        pollfd fds[2] = {{link->wakeFd(), POLLIN, 0}, {-1, 0, 0}};
        nfds_t count = 1;
        if (bus_) {
            fds[1] = {sd_bus_get_fd(bus_.get()), static_cast<short>(sd_bus_get_events(bus_.get())), 0};
            count = 2;
        }
        if (poll(fds, count, waitTimeoutMs()) < 0 && errno != EINTR) {
            Log::logf("BluezCentral: poll failed: %s", std::strerror(errno));
            return;
        }
        if (count == 2 && (fds[1].revents & POLLIN) && !(fds[0].revents & POLLIN)) {
            // Let the burst gather; a command or the stop request cuts the wait short.
            const double rest = lastDrainMs + kCoalescingIntervalMs - monotonicMs();
            if (rest > 0) {
                pollfd wake{link->wakeFd(), POLLIN, 0};
                poll(&wake, 1, static_cast<int>(std::ceil(rest)));
            }
        }
    }
    // Commands posted before the central went away still go out; closing the connection
    // flushes them.
    for (auto& command : link->takeCommands()) command(*this);
}

bool BluezEngine::drain() {
    if (!bus_) return false;
    int r = 0;
    for (int n = 0; n < kMaxMessagesPerDrain; ++n) {
        r = sd_bus_process(bus_.get(), nullptr);
        if (r <= 0) break;
    }
    if (r < 0) {
        Log::logf("BluezCentral: the system bus connection failed: %s", std::strerror(-r));
        discovery_.setBus(nullptr);
        gatt_.setBus(nullptr);
        cache_.detach();
        bus_.reset();
        cache_.bluezGone();
        reconnectLater();
        return false;
    }
    return r > 0;
}

int BluezEngine::waitTimeoutMs() const {
    double until = queue_.msUntilNext();
    if (bus_) {
        uint64_t usec = 0;
        if (sd_bus_get_timeout(bus_.get(), &usec) > 0 && usec != UINT64_MAX) {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            const double nowUs = double(now.tv_sec) * 1e6 + double(now.tv_nsec) / 1e3;
            const double busMs = std::max(0.0, (double(usec) - nowUs) / 1000.0);
            until = until < 0 ? busMs : std::min(until, busMs);
        }
    }
    return until < 0 ? -1 : static_cast<int>(std::ceil(until));
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
    bus_ = sdbus::openSystemBus(&error);
    if (!bus_) {
        if (!busLost_) Log::logf("BluezCentral: cannot reach the system bus: %s", utf8(error).constData());
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
    Log::logf("BluezCentral: state %d (%s)", state, utf8(adapter).constData());
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
        Log::logf("BluezCentral: device %s has no usable address; ignored", utf8(path).constData());
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

double BluezEngine::monotonicMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace lumerix
