#include "ble/TraceRecorder.h"

#include <unistd.h>

#include "ble/AdvertisementTrace.h"
#include "io/RegularFile.h"
#include "log/Log.h"

namespace lumerix {
namespace {

// Stands between a central and its delegate: records each advertisement, then passes it on.
class RecordingCentral final : public BleCentral, public BleCentralDelegate {
public:
    RecordingCentral(const BleCentralFactory& inner, std::shared_ptr<TraceRecorder> recorder,
                     BleCentralDelegate* delegate, DispatchQueue* queue)
        : recorder_(std::move(recorder)), delegate_(delegate), inner_(inner(this, queue)) {}

    int state() const override { return inner_->state(); }
    void scanForPeripherals(bool allowDuplicates) override { inner_->scanForPeripherals(allowDuplicates); }
    void stopScan() override { inner_->stopScan(); }
    void connectPeripheral(const BlePeripheralRef& p) override { inner_->connectPeripheral(p); }
    void cancelPeripheralConnection(const BlePeripheralRef& p) override {
        inner_->cancelPeripheralConnection(p);
    }

    void centralManagerDidUpdateState(int state) override { delegate_->centralManagerDidUpdateState(state); }
    void centralManagerDidDiscoverPeripheral(const BlePeripheralRef& peripheral,
                                             const AdvertisementData& data, double rssi) override {
        if (peripheral) recorder_->record(peripheral->identifier(), data, rssi);
        delegate_->centralManagerDidDiscoverPeripheral(peripheral, data, rssi);
    }
    void centralManagerDidConnectPeripheral(const BlePeripheralRef& p) override {
        delegate_->centralManagerDidConnectPeripheral(p);
    }
    void centralManagerDidFailToConnectPeripheral(const BlePeripheralRef& p,
                                                  const std::optional<BleError>& e) override {
        delegate_->centralManagerDidFailToConnectPeripheral(p, e);
    }
    void centralManagerDidDisconnectPeripheral(const BlePeripheralRef& p,
                                               const std::optional<BleError>& e) override {
        delegate_->centralManagerDidDisconnectPeripheral(p, e);
    }

private:
    std::shared_ptr<TraceRecorder> recorder_;
    BleCentralDelegate* delegate_;
    // Last: destroyed first, so no callback reaches this object once it is being torn down.
    std::unique_ptr<BleCentral> inner_;
};

}  // namespace

TraceRecorder::TraceRecorder(std::shared_ptr<Clock> clock, const QString& path)
    : clock_(std::move(clock)), origin_(clock_->monotonicMs()), path_(path) {
    // A trace holds what decodes to login codes: created for the user alone, never through a link.
    QString why;
    const int fd = RegularFile::openForAppending(path, &why);
    if (fd >= 0 && !file_.open(fd, QIODevice::WriteOnly | QIODevice::Append, QFileDevice::AutoCloseHandle)) {
        why = file_.errorString();
        ::close(fd);
    }
    if (!file_.isOpen()) error_ = QStringLiteral("cannot write the trace %1: %2").arg(path, why);
}

void TraceRecorder::record(const QString& identifier, const AdvertisementData& data, double rssi) {
    const double offset = clock_->monotonicMs() - origin_;
    const QByteArray line = AdvertisementTrace::formatLine({offset, identifier, data, rssi}) + '\n';
    std::lock_guard lock(mutex_);
    if (!file_.isOpen() || writeFailed_) return;
    if (file_.write(line) != line.size() || !file_.flush()) {
        writeFailed_ = true;
        Log::logf("Trace %s: writing failed (%s); recording stops", qUtf8Printable(path_),
                  qUtf8Printable(file_.errorString()));
    }
}

BleCentralFactory TraceRecorder::recordingFactory(BleCentralFactory inner,
                                                  std::shared_ptr<TraceRecorder> recorder) {
    return [inner = std::move(inner), recorder = std::move(recorder)](BleCentralDelegate* delegate,
                                                                      DispatchQueue* queue) {
        return std::make_unique<RecordingCentral>(inner, recorder, delegate, queue);
    };
}

}  // namespace lumerix
