#include "platform/linux/LogindSleepWatcher.h"

#include <QDBusError>

#include "log/Log.h"

namespace lumerix {

namespace {
const QString kService = QStringLiteral("org.freedesktop.login1");
const QString kPath = QStringLiteral("/org/freedesktop/login1");
const QString kInterface = QStringLiteral("org.freedesktop.login1.Manager");
const QString kSignal = QStringLiteral("PrepareForSleep");
}  // namespace

LogindSleepWatcher::LogindSleepWatcher(QDBusConnection bus, Note onSleep, Note onWake, QObject* parent)
    : QObject(parent), bus_(std::move(bus)), onSleep_(std::move(onSleep)), onWake_(std::move(onWake)) {
    if (!bus_.isConnected()) {
        Log::logf("Sleep and wake notes unavailable: no system bus (%s)",
                  bus_.lastError().message().toUtf8().constData());
        return;
    }
    // Only a boolean argument matches the slot, so a malformed signal is never delivered.
    subscribed_ = bus_.connect(kService, kPath, kInterface, kSignal, this, SLOT(prepareForSleep(bool)));
    if (!subscribed_) {
        Log::logf("Sleep and wake notes unavailable: cannot watch logind (%s)",
                  bus_.lastError().message().toUtf8().constData());
    }
}

LogindSleepWatcher::~LogindSleepWatcher() {
    if (subscribed_) bus_.disconnect(kService, kPath, kInterface, kSignal, this, SLOT(prepareForSleep(bool)));
}

void LogindSleepWatcher::prepareForSleep(bool start) {
    const Note& note = start ? onSleep_ : onWake_;
    if (note) note();
}

}  // namespace lumerix
