#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace kelp {

// A shared pointer that one thread replaces while others read it. Readers get a reference of their own.
//
// A mutex of its own is held for the copy of the pointer and never while an object is destroyed, so `T`'s destructor
// may use the pointer again. std::atomic<std::shared_ptr> won't do: its read in libstdc++ 12 releases with relaxed
// order, which makes the next write a race.
template <class T>
class AtomicSharedPtr {
public:
    constexpr AtomicSharedPtr() = default;
    explicit AtomicSharedPtr(std::shared_ptr<T> pointer) : pointer_(std::move(pointer)) {}

    std::shared_ptr<T> load() const {
        std::lock_guard lock(mutex_);
        return pointer_;
    }

    void store(std::shared_ptr<T> pointer) { exchange(std::move(pointer)); }

    // Stores `pointer` and returns what was there.
    std::shared_ptr<T> exchange(std::shared_ptr<T> pointer) {
        std::lock_guard lock(mutex_);
        pointer_.swap(pointer);
        return pointer;
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<T> pointer_;  // guarded by mutex_
};

}  // namespace kelp
