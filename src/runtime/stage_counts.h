#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kelp {

// What a stage counts about its own work. Each has one writer at a time, the stage's thread or whoever holds its lock,
// and any number of readers, which take no lock: an update costs a plain store.

class Count {
public:
    void add(int64_t number = 1) { value_.store(read() + number, std::memory_order_relaxed); }
    void set(int64_t value) { value_.store(value, std::memory_order_relaxed); }
    int64_t read() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<int64_t> value_{0};
};

// How much waits in a queue.
class QueueLevel {
public:
    // `durationMs`: from the time of the first to that of the last. `bytes`: of packets.
    void set(size_t count, int64_t durationMs, int64_t bytes = 0) {
        count_.set(static_cast<int64_t>(count));
        durationMs_.set(durationMs);
        bytes_.set(bytes);
    }
    int count() const { return static_cast<int>(count_.read()); }
    int64_t durationMs() const { return std::max<int64_t>(durationMs_.read(), 0); }
    int64_t bytes() const { return bytes_.read(); }

private:
    Count count_;
    Count durationMs_;
    Count bytes_;
};

// Bytes of the last second, to a tenth of it.
class LastSecond {
public:
    void add(int64_t bytes, int64_t nowMs) {
        const auto tenth = static_cast<uint32_t>(nowMs / kTenthMs);
        auto& slot = slots_[tenth % kSlots];
        const uint64_t held = slot.load(std::memory_order_relaxed);
        const uint64_t before = held >> 32 == tenth ? held & 0xFFFF'FFFF : 0;
        slot.store(uint64_t{tenth} << 32 | (before + static_cast<uint64_t>(bytes)), std::memory_order_relaxed);
    }
    int64_t read(int64_t nowMs) const {
        const auto tenth = static_cast<uint32_t>(nowMs / kTenthMs);
        uint64_t sum = 0;
        for (const auto& slot : slots_) {
            const uint64_t held = slot.load(std::memory_order_relaxed);
            sum += tenth - static_cast<uint32_t>(held >> 32) < kSlots ? held & 0xFFFF'FFFF : 0;
        }
        return static_cast<int64_t>(sum);
    }

private:
    static constexpr int64_t kTenthMs = 100;
    static constexpr uint32_t kSlots = 10;

    std::array<std::atomic<uint64_t>, kSlots> slots_{};  // which tenth since 1970, and its bytes: 32 bits each
};

// One stream, as it is read.
struct ReadCounts {
    void add(int size, int64_t nowMs) {
        packets.add();
        bytes.add(size);
        lastSecond.add(size, nowMs);
    }
    void reset() {
        packets.set(0);
        bytes.set(0);
    }

    Count packets;
    Count bytes;
    LastSecond lastSecond;
};

struct DecodeCounts {
    void opened(const char* name, bool onHardware) {
        decoder.store(name, std::memory_order_relaxed);
        isHardware.store(onHardware, std::memory_order_relaxed);
    }

    std::atomic<const char*> decoder{""};  // its name, which lives for good
    std::atomic<bool> isHardware{false};
    Count frames;
    Count late;  // pictures that were left out, as they would have come too late
};

struct PictureCounts {
    Count shown;
    Count late;
    Count repeated;
    Count aheadOfMasterMs;
};

struct SoundCounts {
    Count blocks;
    Count underruns;
    Count output;  // a SoundOutput
    Count aheadOfMasterMs;
};

}  // namespace kelp
