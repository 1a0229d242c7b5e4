#pragma once
// Sleep and wake from logind: PrepareForSleep(true) on org.freedesktop.login1 is the sleep note,
// PrepareForSleep(false) the wake note. Subscribes on the bus it is given (the system bus in
// production); the callbacks run on the thread that owns the watcher.
#include <QDBusConnection>
#include <QObject>
#include <functional>

namespace lumerix {

class LogindSleepWatcher final : public QObject {
    Q_OBJECT
public:
    using Note = std::function<void()>;

    LogindSleepWatcher(QDBusConnection bus, Note onSleep, Note onWake, QObject* parent = nullptr);
    ~LogindSleepWatcher() override;

    // False when the bus is not connected or the match could not be added (logged once).
    bool isSubscribed() const { return subscribed_; }

private Q_SLOTS:
    void prepareForSleep(bool start);

private:
    QDBusConnection bus_;
    Note onSleep_;
    Note onWake_;
    bool subscribed_ = false;
};

}  // namespace lumerix
