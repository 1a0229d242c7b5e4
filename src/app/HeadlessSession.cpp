#include "app/HeadlessSession.h"

#include <QCoreApplication>
#include <QTimer>
#include <cstdio>
#include <thread>

#include "app/ProductionEnvironment.h"
#include "log/Log.h"

namespace lumerix {
namespace {

// How long Bluetooth may take to come up before the run gives up.
constexpr int kGraceMs = 2000;

}  // namespace

HeadlessSession::HeadlessSession(bool demo)
    : HeadlessSession([demo] {
          ScanSource source;
          source.demo = demo;
          return source;
      }()) {}

HeadlessSession::HeadlessSession(const ScanSource& source)
    : mainQueue_("com.zemko.Lumerix.main", QCoreApplication::instance()),
      demand_(std::make_shared<ScanDemand>()),
      looking_(demand_->hold()),
      alive_(std::make_shared<bool>(true)) {
    handler_ = QVLumerixHandler::create(makeProductionEnvironment(&mainQueue_, source, demand_));
    handler_->setDelegate(this);
}

HeadlessSession::~HeadlessSession() {
    alive_.reset();
    handler_->setDelegate(nullptr);
    handler_.reset();
}

QString HeadlessSession::stateText(int state) {
    switch (state) {
        case 0:
            return QStringLiteral("state 0, unknown: bluetoothd is not running or cannot be reached");
        case 1:
            return QStringLiteral("state 1, resetting");
        case 2:
            return QStringLiteral("state 2, unsupported: no Bluetooth adapter");
        case 3:
            return QStringLiteral("state 3, unauthorized: access to bluetoothd was denied");
        case 4:
            return QStringLiteral("state 4, powered off");
        case 5:
            return QStringLiteral("state 5, powered on");
        default:
            return QStringLiteral("state %1").arg(state);
    }
}

int HeadlessSession::exec(double durationMs) {
    tryStart();
    if (!scanning_) {
        QTimer::singleShot(kGraceMs, QCoreApplication::instance(),
                           [this, alive = std::weak_ptr<bool>(alive_)] {
                               if (alive.expired() || scanning_ || finished_) return;
                               bluetoothUnavailable(handler_->mCurrentState(), false);
                           });
    }
    const int ms = durationMs > 0 ? static_cast<int>(durationMs) : 0;
    QTimer::singleShot(ms, QCoreApplication::instance(), [this, alive = std::weak_ptr<bool>(alive_)] {
        if (alive.expired() || finished_) return;
        if (!scanning_) return;  // the grace timer reports this
        finish(deadlineReached());
    });
    QCoreApplication::exec();
    return exitCode_;
}

void HeadlessSession::finish(int exitCode) {
    if (finished_) return;
    finished_ = true;
    exitCode_ = exitCode;
    QCoreApplication::exit(exitCode);
}

void HeadlessSession::tryStart() {
    scanning_ = handler_->scanForLumerixService(true);
    for (int retry = 0; !scanning_ && retry < QVLumerixHandler::kScanRetryCount; ++retry) {
        std::this_thread::sleep_for(QVLumerixHandler::kScanRetryPause);
        scanning_ = handler_->scanForLumerixService(true);
    }
    if (scanning_) Log::logf("lumerix: scanning for receivers");
}

void HeadlessSession::bluetoothUnavailable(int state, bool wasScanning) {
    const QString text = wasScanning
                             ? QStringLiteral("lumerix: Bluetooth became unavailable during the scan: %1\n")
                             : QStringLiteral("lumerix: Bluetooth is off or no adapter was found: %1\n");
    std::fputs(text.arg(stateText(state)).toUtf8().constData(), stderr);
    finish(kExitBluetoothUnavailable);
}

void HeadlessSession::lumerixStateDidChange(int state) {
    mainQueue_.async([this, state, alive = std::weak_ptr<bool>(alive_)] {
        if (alive.expired() || finished_) return;
        if (state == BleStatePoweredOn && !scanning_) tryStart();
        if (state != BleStatePoweredOn && scanning_) {
            scanning_ = false;
            bluetoothUnavailable(state, true);
        }
    });
}

void HeadlessSession::lumerixDidDiscoverItem(const QVLumerixItemRef& item) {
    // Arrives on the main thread already.
    if (!finished_ && item) itemSeen(item);
}

void HeadlessSession::lumerixItem(const QVLumerixItemRef& item, int status) {
    if (!finished_ && item) itemStatus(item, status);
}

}  // namespace lumerix
