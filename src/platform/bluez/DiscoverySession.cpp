#include "platform/bluez/DiscoverySession.h"

#include <utility>

#include "log/Log.h"
#include "platform/bluez/BluezInterfaces.h"

namespace lumerix {

using bluez::Adapter1;

DiscoverySession::DiscoverySession(DispatchQueue& queue, std::shared_ptr<ScanDemand> demand, QString pattern)
    : DiscoverySession(queue, std::move(demand), std::move(pattern), DiscoveryWindows::Timing{}) {}

DiscoverySession::DiscoverySession(DispatchQueue& queue, std::shared_ptr<ScanDemand> demand, QString pattern,
                                   DiscoveryWindows::Timing timing)
    : pattern_(std::move(pattern)),
      windows_(
          queue, std::move(demand), [this](bool on) { radio(on); }, timing) {}

void DiscoverySession::start(const QString& adapter, bool allowDuplicates) {
    if (adapter != adapter_) stopDiscovery();
    adapter_ = adapter;
    allowDuplicates_ = allowDuplicates;
    scanning_ = true;
    windows_.scanRequested();
}

void DiscoverySession::stop() {
    scanning_ = false;
    windows_.scanStopped();
    stopDiscovery();
}

void DiscoverySession::moveTo(const QString& adapter) {
    if (adapter == adapter_) return;
    stopDiscovery();
    adapter_ = adapter;
    if (windows_.wantsDiscovery()) startDiscovery();
}

void DiscoverySession::lost() {
    scanning_ = false;
    started_ = false;
    startSent_ = false;
    ++generation_;
    adapter_.clear();
    windows_.radioLost();
}

void DiscoverySession::radio(bool on) {
    if (on)
        startDiscovery();
    else
        stopDiscovery();
}

void DiscoverySession::startDiscovery() {
    if (!bus_ || adapter_.isEmpty() || started_) return;
    started_ = true;
    const quint64 generation = ++generation_;
    const QString adapter = adapter_;
    const bool sent = Adapter1::setDiscoveryFilter(
        bus_, adapter, allowDuplicates_, pattern_, [this, adapter, generation](const sdbus::Reply& reply) {
            if (!reply.ok())
                Log::logf("BluezCentral: SetDiscoveryFilter failed: %s",
                          reply.errorText().toUtf8().constData());
            // Stopped, or moved on, while the filter was being set.
            if (generation != generation_ || !bus_) return;
            startSent_ = true;
            Adapter1::startDiscovery(bus_, adapter, [this](const sdbus::Reply& r) {
                if (r.ok() || r.errorName == QLatin1String("org.bluez.Error.InProgress")) return;
                Log::logf("BluezCentral: StartDiscovery failed: %s", r.errorText().toUtf8().constData());
                if (r.errorName == QLatin1String("org.freedesktop.DBus.Error.AccessDenied") && onAccessDenied)
                    onAccessDenied();
            });
        });
    if (!sent) {
        started_ = false;
        Log::logf("BluezCentral: could not ask for discovery on %s", adapter.toUtf8().constData());
    }
}

void DiscoverySession::stopDiscovery() {
    if (!started_) return;
    started_ = false;
    ++generation_;
    // Nothing to stop when StartDiscovery never left: the filter's reply will see the new generation.
    if (!std::exchange(startSent_, false) || !bus_ || adapter_.isEmpty()) return;
    Adapter1::stopDiscovery(bus_, adapter_, [](const sdbus::Reply& reply) {
        if (!reply.ok())
            Log::logf("BluezCentral: StopDiscovery failed: %s", reply.errorText().toUtf8().constData());
    });
}

}  // namespace lumerix
