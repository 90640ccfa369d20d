#pragma once

#include <algorithm>
#include <atomic>
#include <vector>

#include "kelp_player/tracks.h"

namespace kelp {

// Which video and sound are played where the host has selected others than the load. Any thread.
class SelectedTracks {
public:
    void select(TrackKind kind, int number) { (kind == TRACK_KIND_VIDEO ? video_ : audio_) = number; }
    // Another load.
    void forget() { video_ = audio_ = kNone; }

    // Whether `track`, a video or sound, is played.
    bool isPlayed(const Track& track) const {
        const int selected = track.kind == TRACK_KIND_VIDEO ? video_ : audio_;
        return selected == kNone ? track.isPlayed : track.number == selected;
    }

    // The one of this kind that is; null if there is none.
    const Track* played(const std::vector<Track>& tracks, TrackKind kind) const {
        const auto found =
            std::ranges::find_if(tracks, [&](const Track& track) { return track.kind == kind && isPlayed(track); });
        return found != tracks.end() ? &*found : nullptr;
    }

private:
    static constexpr int kNone = -1;

    std::atomic<int> video_{kNone};
    std::atomic<int> audio_{kNone};
};

}  // namespace kelp
