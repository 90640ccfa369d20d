#include "present/conversion_turn.h"

#include <condition_variable>
#include <mutex>

namespace kelp {

namespace {

// One of the process. Whoever waits is woken by the one before him, and by each one that goes: both change what he
// looks at under the mutex.
struct Turns {
    std::mutex mutex;
    std::condition_variable changed;
    unsigned int asked = 0;  // turns that were asked for, and
    unsigned int begun = 0;  // that have begun
    int under = 0;           // that are under way, by
    SDL_YUV_CONVERSION_MODE mode = SDL_YUV_CONVERSION_AUTOMATIC;
};

Turns& turns() {
    // For good: a thread may still wait for its turn while the process ends.
    static Turns& turns = *new Turns;
    return turns;
}

}  // namespace

ConversionTurn::ConversionTurn(SDL_YUV_CONVERSION_MODE mode) : mode_(mode) {
    Turns& all = turns();
    std::unique_lock lock(all.mutex);
    const unsigned int own = all.asked++;
    all.changed.wait(lock, [&] { return all.begun == own && (all.under == 0 || all.mode == mode); });
    ++all.begun;
    ++all.under;
    all.mode = mode;
    SDL_SetYUVConversionMode(mode);
    all.changed.notify_all();
}

ConversionTurn::~ConversionTurn() {
    Turns& all = turns();
    std::lock_guard lock(all.mutex);
    if (--all.under == 0 && (drawn_ || mode_ != SDL_YUV_CONVERSION_AUTOMATIC)) {
        SDL_SetYUVConversionMode(SDL_YUV_CONVERSION_AUTOMATIC);
    }
    all.changed.notify_all();
}

int ConversionTurn::waiting() {
    Turns& all = turns();
    std::lock_guard lock(all.mutex);
    return static_cast<int>(all.asked - all.begun);
}

}  // namespace kelp
