#pragma once
// A scanning handler run without the tray, for the command-line modes: logging, scanning started
// the way the tray starts it (QVLumerixHandler::kScanRetryCount retries), a clear message and exit code 2
// when Bluetooth is off or missing, and a deadline. Delegate callbacks are handled on the main thread.
#include <QString>
#include <memory>

#include "app/ProductionEnvironment.h"
#include "ble/ScanDemand.h"
#include "dispatch/QtQueues.h"
#include "receiver/QVLumerixHandler.h"

namespace lumerix {

class HeadlessSession : public LumerixHandler_Delegate {
public:
    static constexpr int kExitBluetoothUnavailable = 2;

    // Needs a QCoreApplication.
    explicit HeadlessSession(bool demo);
    explicit HeadlessSession(const ScanSource& source);
    ~HeadlessSession() override;
    HeadlessSession(const HeadlessSession&) = delete;
    HeadlessSession& operator=(const HeadlessSession&) = delete;

    // Scans until finish() or until durationMs have passed (then deadlineReached() decides).
    int exec(double durationMs);

    // What a central state means to the user ("Bluetooth is off").
    static QString stateText(int state);

protected:
    virtual void itemSeen(const QVLumerixItemRef& item) {}
    virtual void itemStatus(const QVLumerixItemRef& item, int status) {}
    // The exit code when the duration ends.
    virtual int deadlineReached() = 0;
    void finish(int exitCode);
    QVLumerixHandler& handler() { return *handler_; }
    // True once scanning has started and while Bluetooth stays up.
    bool scanning() const { return scanning_; }

private:
    void tryStart();
    void bluetoothUnavailable(int state, bool wasScanning);

    // LumerixHandler_Delegate (any thread; forwarded to the main thread).
    void lumerixStateDidChange(int state) override;
    void lumerixDidDiscoverItem(const QVLumerixItemRef& item) override;
    void lumerixItem(const QVLumerixItemRef& item, int status) override;

    QtEventQueue mainQueue_;
    // A command-line run waits for receivers all along: the radio never pauses.
    std::shared_ptr<ScanDemand> demand_;
    ScanDemand::Hold looking_;
    std::shared_ptr<QVLumerixHandler> handler_;
    std::shared_ptr<bool> alive_;
    bool scanning_ = false;
    bool finished_ = false;
    int exitCode_ = 0;
};

}  // namespace lumerix
