#include <atomic>
#include <new>

#include "c/player.h"
#include "kelp_player/sync_clock.h"

using namespace kelp::c;

namespace {

// Asks the host's callbacks.
class HostClock final : public kelp::KelpSyncClock {
public:
    explicit HostClock(const kelp_clock_calls& calls) : calls_(calls) {}

    int64_t getNoSyncThreshold() override {
        constexpr int64_t kUnlessSaidMs = 10000;
        return calls_.get_no_sync_threshold_ms ? calls_.get_no_sync_threshold_ms(calls_.user) : kUnlessSaidMs;
    }
    bool isForceSync() override { return !calls_.is_force_sync || calls_.is_force_sync(calls_.user) != 0; }
    int64_t getSyncPts() override { return calls_.get_time_ms(calls_.user); }

private:
    const kelp_clock_calls calls_;
};

}  // namespace

// One of the two kinds: that of the library, or the host's own.
struct kelp_clock {
    std::unique_ptr<kelp::TarnSyncClock, void (*)(kelp::TarnSyncClock*)> ready{nullptr, kelp::TarnSyncClock::destroy};
    std::unique_ptr<HostClock> own;

    mutable LastError error;

    kelp::KelpSyncClock* clock() const { return own ? static_cast<kelp::KelpSyncClock*>(own.get()) : ready.get(); }
};

namespace {

// What only a clock of the library can do.
template <typename Body>
int withReady(const char* operation, kelp_clock* clock, Body body) {
    return carryOut(operation, clock, [&](kelp_clock& handle) {
        require(handle.ready != nullptr, "the clock is the host's own");
        body(*handle.ready);
    });
}

}  // namespace

kelp_clock* kelp_clock_create(int64_t start_ms, int64_t no_sync_threshold_ms) {
    return made<kelp_clock>(__func__, [&] {
        auto handle = std::make_unique<kelp_clock>();
        handle->ready.reset(kelp::TarnSyncClock::create(start_ms, no_sync_threshold_ms));
        if (!handle->ready) {
            throw std::bad_alloc();
        }
        return handle;
    });
}

kelp_clock* kelp_clock_create_own(const kelp_clock_calls* calls) {
    return made<kelp_clock>(__func__, [&] {
        const kelp_clock_calls known = needed(calls);
        require(known.get_time_ms, kNoCallback);
        auto handle = std::make_unique<kelp_clock>();
        handle->own = std::make_unique<HostClock>(known);
        return handle;
    });
}

void kelp_clock_destroy(kelp_clock* clock) {
    delete clock;
}

const char* kelp_clock_last_error(const kelp_clock* clock) {
    return errorText(clock);
}

int64_t kelp_clock_get_time_ms(kelp_clock* clock) {
    return valueOf(__func__, clock, int64_t{0}, [](kelp_clock& handle) { return handle.clock()->getSyncPts(); });
}

int kelp_clock_pause(kelp_clock* clock) {
    return withReady(__func__, clock, [](kelp::TarnSyncClock& ready) { ready.pause(); });
}

int kelp_clock_resume(kelp_clock* clock) {
    return withReady(__func__, clock, [](kelp::TarnSyncClock& ready) { ready.resume(); });
}

int kelp_clock_reset(kelp_clock* clock, int64_t time_ms) {
    return withReady(__func__, clock, [&](kelp::TarnSyncClock& ready) { ready.reset(time_ms); });
}

int kelp_clock_set_speed(kelp_clock* clock, double speed) {
    return withReady(__func__, clock, [&](kelp::TarnSyncClock& ready) { ready.setSpeed(speed); });
}

int kelp_player_set_clock(kelp_player* player, kelp_clock* clock) {
    return carryOut(__func__, player,
                    [&](kelp_player& handle) { handle.player->setSyncClock(clock ? clock->clock() : nullptr); });
}

int kelp_player_set_offset(kelp_player* player, int offset_ms) {
    return carryOut(__func__, player, [&](kelp_player& handle) {
        require(handle.player->setOffsetToClockMs(offset_ms), "no clock is set");
    });
}

void kelp_set_sample_correction_percent_max(int percent) {
    std::atomic_ref(kelp::SAMPLE_CORRECTION_PERCENT_MAX) = percent;
}

int kelp_get_sample_correction_percent_max(void) {
    return std::atomic_ref(kelp::SAMPLE_CORRECTION_PERCENT_MAX);
}
