#include "present/tempo_pieces.h"

#include "present/tempo_library.h"

namespace kelp {

namespace {

constexpr int kPieceSetting = 3;
constexpr int kSearchSetting = 4;
constexpr int kOverlapSetting = 5;

// A piece is right in its middle only, so where time is exact longer ones are too long.
constexpr int kExactPieceMs = 40;

// A piece, where it may go on, and how the two blend: the library holds back the first two. Where the delay is to be
// low these do for what little the tempo changes there, and for voices.
constexpr int kLowDelayPieceMs = 20;
constexpr int kLowDelaySearchMs = 10;
constexpr int kLowDelayOverlapMs = 5;

}  // namespace

void chooseTempoPieces(void* soundTouch, const PlaybackOptions& options) {
    if (options.lowLiveDelay) {
        soundtouch_setSetting(soundTouch, kPieceSetting, kLowDelayPieceMs);
        soundtouch_setSetting(soundTouch, kSearchSetting, kLowDelaySearchMs);
        soundtouch_setSetting(soundTouch, kOverlapSetting, kLowDelayOverlapMs);
    } else if (options.exactTiming) {
        soundtouch_setSetting(soundTouch, kPieceSetting, kExactPieceMs);
    }
}

}  // namespace kelp
