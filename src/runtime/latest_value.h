#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kelp {

// A value of several words that one thread at a time writes and any others read. Nobody waits: a write is a few plain
// stores, and a read begins anew only when a whole write came in its midst.
//
// The value stands in one slot and the next one is written to the other, so a read is torn only if the write after the
// next has begun. Who sees a word of that one sees, by the order of its store, that the count has moved on.
template <class T>
class LatestValue {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) % sizeof(uint64_t) == 0);

public:
    void write(const T& value) {
        Words words;
        std::memcpy(words.data(), &value, sizeof value);
        const uint32_t next = count_.load(std::memory_order_relaxed) + 1;
        for (size_t i = 0; i < words.size(); ++i) {
            slots_[next % 2][i].store(words[i], std::memory_order_release);
        }
        count_.store(next, std::memory_order_release);
    }

    T read() const {
        Words words;
        uint32_t count = 0;
        do {
            count = count_.load(std::memory_order_acquire);
            for (size_t i = 0; i < words.size(); ++i) {
                words[i] = slots_[count % 2][i].load(std::memory_order_acquire);
            }
        } while (count_.load(std::memory_order_relaxed) != count);
        T value;
        std::memcpy(static_cast<void*>(&value), words.data(), sizeof value);
        return value;
    }

private:
    using Words = std::array<uint64_t, sizeof(T) / sizeof(uint64_t)>;

    std::array<std::array<std::atomic<uint64_t>, sizeof(T) / sizeof(uint64_t)>, 2> slots_{};
    std::atomic<uint32_t> count_{0};  // of the writes; the newest is in the slot of its last bit
};

}  // namespace kelp
