#pragma once
// A lock-protected FIFO of fixed capacity that drops the element at the far end when an insertion
// makes it overfull, and hands the dropped element back. Oldest element at the head (index 0).
#include <QString>
#include <QStringList>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <vector>

namespace lumerix {

// Text form of a queue element for componentsJoinedByString.
inline QString lxDescription(double v) { return QString::number(v, 'g', 17); }
inline QString lxDescription(const QString& s) { return s; }

template <typename T>
class QVQueue {
public:
    QVQueue() : QVQueue(10) {}
    explicit QVQueue(uint64_t capacity) : capacity_(capacity) {}

    // Appends at the tail; returns the head when the queue became overfull.
    std::optional<T> push(T object) {
        std::lock_guard lock(mutex_);
        list_.push_back(std::move(object));
        if (list_.size() > capacity_) {
            T dropped = std::move(list_.front());
            list_.pop_front();
            return dropped;
        }
        return std::nullopt;
    }

    // Inserts at the head; returns the element at index `capacity` when the queue became overfull.
    std::optional<T> pushFromHead(T object) {
        std::lock_guard lock(mutex_);
        list_.push_front(std::move(object));
        if (list_.size() > capacity_) {
            auto at = list_.begin() + static_cast<std::ptrdiff_t>(capacity_);
            T dropped = std::move(*at);
            list_.erase(at);
            return dropped;
        }
        return std::nullopt;
    }

    // Removes and returns the head; an empty queue throws std::out_of_range.
    T pop() {
        std::lock_guard lock(mutex_);
        if (list_.empty()) throw std::out_of_range("QVQueue::pop on an empty queue");
        T head = std::move(list_.front());
        list_.pop_front();
        return head;
    }

    // Removes the first element equal to `object`, if any; returns `object` either way.
    T pop(const T& object) {
        std::lock_guard lock(mutex_);
        for (auto it = list_.begin(); it != list_.end(); ++it) {
            if (*it == object) {
                list_.erase(it);
                break;
            }
        }
        return object;
    }

    uint64_t count() const {
        std::lock_guard lock(mutex_);
        return list_.size();
    }

    void reset() {
        std::lock_guard lock(mutex_);
        list_ = std::deque<T>();
    }

    std::vector<T> dump() const {
        std::lock_guard lock(mutex_);
        return std::vector<T>(list_.begin(), list_.end());
    }

    QString componentsJoinedByString(const QString& separator) const {
        QStringList parts;
        for (const T& e : dump()) parts.append(lxDescription(e));
        return parts.join(separator);
    }

    uint64_t capacity() const {
        std::lock_guard lock(mutex_);
        return capacity_;
    }
    // Takes effect at the next insertion; does not trim the list by itself.
    void setCapacity(uint64_t capacity) {
        std::lock_guard lock(mutex_);
        capacity_ = capacity;
    }

private:
    mutable std::mutex mutex_;
    uint64_t capacity_;
    std::deque<T> list_;
};

}  // namespace lumerix
