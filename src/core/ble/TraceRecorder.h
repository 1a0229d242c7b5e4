#pragma once
// Appends every advertisement a central reports to a trace file (see AdvertisementTrace), with
// offsets counted from the recorder's creation on the given clock. The file is the user's own
// regular file, created 0600; a link at the path is refused. record() may be called from
// any thread; each line is flushed as it is written so that a trace survives a crash.
#include <QFile>
#include <QString>
#include <memory>
#include <mutex>

#include "ble/BleCentral.h"
#include "dispatch/Clock.h"

namespace lumerix {

class TraceRecorder {
public:
    TraceRecorder(std::shared_ptr<Clock> clock, const QString& path);
    // False (with the reason in error()) when the file could not be opened for appending.
    bool isOpen() const { return file_.isOpen(); }
    QString error() const { return error_; }
    void record(const QString& identifier, const AdvertisementData& data, double rssi);

    // A factory whose centrals report through `inner` and record each advertisement first.
    static BleCentralFactory recordingFactory(BleCentralFactory inner,
                                              std::shared_ptr<TraceRecorder> recorder);

private:
    std::shared_ptr<Clock> clock_;
    const double origin_;
    const QString path_;
    std::mutex mutex_;
    QFile file_;
    QString error_;
    bool writeFailed_ = false;
};

}  // namespace lumerix
