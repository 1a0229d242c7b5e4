#include "platform/linux/LogindWorkspace.h"

#include <algorithm>

#include "log/Log.h"

namespace lumerix {

LogindWorkspace::LogindWorkspace(QDBusConnection systemBus)
    : watcher_(std::make_unique<LogindSleepWatcher>(
          std::move(systemBus),
          [this] {
              Log::logf("System is going to sleep");
              tell(&WorkspaceObserver::receiveSleepNote);
          },
          [this] {
              Log::logf("System woke up");
              tell(&WorkspaceObserver::receiveWakeNote);
          })) {}

LogindWorkspace::~LogindWorkspace() = default;

void LogindWorkspace::addObserver(WorkspaceObserver* observer) {
    if (observer && std::find(observers_.begin(), observers_.end(), observer) == observers_.end()) {
        observers_.push_back(observer);
    }
}

void LogindWorkspace::removeObserver(WorkspaceObserver* observer) {
    observers_.erase(std::remove(observers_.begin(), observers_.end(), observer), observers_.end());
}

template <typename Note>
void LogindWorkspace::tell(Note note) {
    // A copy: an observer may remove itself while being told.
    const std::vector<WorkspaceObserver*> observers = observers_;
    for (WorkspaceObserver* observer : observers) {
        if (std::find(observers_.begin(), observers_.end(), observer) != observers_.end())
            (observer->*note)();
    }
}

}  // namespace lumerix
