#pragma once
// Whether someone is looking at the receivers right now: the tray menu is open, or a command or
// D-Bus client waits for them. A central that pauses its scan to spare the radio reads this and
// scans without pause while it is set. Thread-safe: the tray and the services set it on the main
// thread, the central reads it on its own thread and is told of each change.
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace lumerix {

class ScanDemand final : public std::enable_shared_from_this<ScanDemand> {
public:
    // One reason to look, held for as long as the object lives.
    using Hold = std::shared_ptr<void>;
    using Listener = std::function<void()>;

    ScanDemand() = default;
    ScanDemand(const ScanDemand&) = delete;
    ScanDemand& operator=(const ScanDemand&) = delete;

    // Someone looks until the returned hold is released.
    [[nodiscard]] Hold hold();
    // Someone asked just now (a query answered at once): look hard for a while.
    void nudge();

    bool isLooking() const;
    // Counts nudges; a reader compares it with the count it saw last.
    uint64_t nudges() const;

    // listener is called, on the thread that made the change, after every change of looking and
    // every nudge, until removed. It must not call back into this object's setters.
    int addListener(Listener listener);
    void removeListener(int id);

private:
    void changed(int delta);

    mutable std::mutex mutex_;
    int holds_ = 0;
    uint64_t nudges_ = 0;
    int nextId_ = 0;
    std::vector<std::pair<int, std::shared_ptr<Listener>>> listeners_;
};

}  // namespace lumerix
