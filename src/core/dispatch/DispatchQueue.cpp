#include "dispatch/DispatchQueue.h"

#include <future>

namespace lumerix {
namespace {
thread_local DispatchQueue* t_current = nullptr;
thread_local DispatchQueue* t_default = nullptr;
}  // namespace

void DispatchQueue::sync(const Task& task) {
    std::promise<void> done;
    async([&] {
        task();
        done.set_value();
    });
    done.get_future().wait();
}

DispatchQueue* DispatchQueue::current() { return t_current ? t_current : t_default; }
void DispatchQueue::setThreadDefault(DispatchQueue* queue) { t_default = queue; }

DispatchQueue::CurrentScope::CurrentScope(DispatchQueue* q) : previous_(t_current) { t_current = q; }
DispatchQueue::CurrentScope::~CurrentScope() { t_current = previous_; }

}  // namespace lumerix
