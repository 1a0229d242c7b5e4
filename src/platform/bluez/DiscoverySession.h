#pragma once
// The central's discovery on one adapter: the filter (Transport le, DuplicateData, Pattern), and
// StartDiscovery/StopDiscovery as the windows decide (DiscoveryWindows). bluetoothd runs one
// discovery session per client connection, so ours ends with the connection too.
// Intake thread only.
#include <QString>
#include <QtGlobal>
#include <functional>
#include <memory>

#include "platform/bluez/DiscoveryWindows.h"
#include "platform/bluez/SdBus.h"

namespace lumerix {

class DiscoverySession final {
public:
    // pattern: a prefix of the names bluetoothd should report (empty: every device).
    DiscoverySession(DispatchQueue& queue, std::shared_ptr<ScanDemand> demand, QString pattern);
    DiscoverySession(DispatchQueue& queue, std::shared_ptr<ScanDemand> demand, QString pattern,
                     DiscoveryWindows::Timing timing);

    // The connection to call on; null while there is none.
    void setBus(sd_bus* bus) { bus_ = bus; }
    // The scan was asked for (each rescan cycle) on the given adapter.
    void start(const QString& adapter, bool allowDuplicates);
    void stop();
    // The default adapter changed while scanning: discovery moves to it.
    void moveTo(const QString& adapter);
    // Discovery ended with the power, the adapter or bluetoothd; nothing to stop.
    void lost();

    void boost() { windows_.boost(); }
    void setAudioActive(bool active) { windows_.setAudioActive(active); }
    void demandChanged() { windows_.demandChanged(); }

    // The scan is asked for (advertisements count), whether or not the radio is in a window.
    bool scanning() const { return scanning_; }
    const QString& adapter() const { return adapter_; }
    // StartDiscovery sent and not stopped since.
    bool discovering() const { return started_; }

    // StartDiscovery refused with AccessDenied: the adapter may be read but not scanned.
    std::function<void()> onAccessDenied;

private:
    void radio(bool on);
    void startDiscovery();
    void stopDiscovery();

    const QString pattern_;
    DiscoveryWindows windows_;
    sd_bus* bus_ = nullptr;
    QString adapter_;
    bool scanning_ = false;
    bool allowDuplicates_ = true;
    bool started_ = false;    // discovery wanted on adapter_: the filter or StartDiscovery went out
    bool startSent_ = false;  // StartDiscovery went out, so StopDiscovery has something to stop
    quint64 generation_ = 0;  // a filter reply of an older start does not start discovery
};

}  // namespace lumerix
