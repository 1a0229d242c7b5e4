#pragma once
// The shell's Workspace on Linux: logind's PrepareForSleep(true/false) told to every observer as
// the sleep and wake notes, on the thread that created the workspace (the main thread).
#include <QDBusConnection>
#include <memory>
#include <vector>

#include "platform/linux/LogindSleepWatcher.h"
#include "shell/ShellPorts.h"

namespace lumerix {

class LogindWorkspace final : public Workspace {
public:
    explicit LogindWorkspace(QDBusConnection systemBus);
    ~LogindWorkspace() override;

    void addObserver(WorkspaceObserver* observer) override;
    void removeObserver(WorkspaceObserver* observer) override;
    bool isWatching() const { return watcher_->isSubscribed(); }

private:
    template <typename Note>
    void tell(Note note);

    std::unique_ptr<LogindSleepWatcher> watcher_;
    std::vector<WorkspaceObserver*> observers_;
};

}  // namespace lumerix
