#include "app/HeadlessSession.h"

#include <QCoreApplication>
#include <QTimer>
#include <cstdio>
#include <thread>

#include "app/ProductionEnvironment.h"
#include "log/Log.h"
#include "shell/ReceiverToolTip.h"

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
    // Joined before the main queue below goes: otherwise the evaluation thread could hold the
    // last reference and tear the handler down after it.
    handler_->shutDown();
    handler_.reset();
}

QString HeadlessSession::stateText(int state) {
    return ReceiverToolTip::radioText(ReceiverToolTip::radioFor(state));
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
    const QString text =
        wasScanning ? QCoreApplication::translate("HeadlessSession", "Bluetooth stopped during the scan: %1.")
                    : QCoreApplication::translate("HeadlessSession", "Cannot scan: %1.");
    const QString hint =
        QCoreApplication::translate("HeadlessSession", "Run \"lumerix --doctor\" to see why.");
    std::fputs((QStringLiteral("lumerix: ") + text.arg(stateText(state)) + QLatin1Char('\n') + hint +
                QLatin1Char('\n'))
                   .toUtf8()
                   .constData(),
               stderr);
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
