#include "kelp_player/tracks.h"

#include "c/player.h"

using namespace kelp::c;

static_assert(same(KELP_TRACK_KIND_VIDEO, kelp::TRACK_KIND_VIDEO));
static_assert(same(KELP_TRACK_KIND_AUDIO, kelp::TRACK_KIND_AUDIO));
static_assert(same(KELP_TRACK_KIND_SUBTITLE, kelp::TRACK_KIND_SUBTITLE));
static_assert(same(KELP_TRACK_KIND_OTHER, kelp::TRACK_KIND_OTHER));

// A copy of a player's tracks, which the texts that are given out lie in.
struct kelp_tracks {
    std::vector<kelp::Track> list;
    mutable LastError error;
};

kelp_tracks* kelp_player_get_tracks(kelp_player* player) {
    return valueOf(__func__, player, static_cast<kelp_tracks*>(nullptr), [](kelp_player& handle) {
        auto tracks = std::make_unique<kelp_tracks>();
        tracks->list = handle.player->getTracks();
        return tracks.release();
    });
}

void kelp_tracks_free(kelp_tracks* tracks) {
    delete tracks;
}

const char* kelp_tracks_last_error(const kelp_tracks* tracks) {
    return errorText(tracks);
}

size_t kelp_tracks_count(const kelp_tracks* tracks) {
    return tracks ? tracks->list.size() : 0;
}

int kelp_tracks_get(const kelp_tracks* tracks, size_t index, kelp_track* track) {
    return carryOut(__func__, tracks, [&](const kelp_tracks& handle) {
        require(index < handle.list.size(), "there aren't so many tracks");
        const kelp::Track& source = handle.list[index];
        kelp_track known{};
        known.number = source.number;
        known.kind = source.kind;
        known.codec = source.codec.c_str();
        known.language = source.language.c_str();
        known.title = source.title.c_str();
        known.is_default = source.isDefault;
        known.is_attached_picture = source.isAttachedPicture;
        known.is_playable = source.isPlayable;
        known.is_played = source.isPlayed;
        known.width = source.width;
        known.height = source.height;
        known.sample_rate = source.sampleRate;
        known.channels = source.channels;
        known.frame_rate = source.frameRate;
        fill(known, track);
    });
}

int kelp_player_select_track(kelp_player* player, int kind, int number) {
    return carryOut(__func__, player, [&](kelp_player& handle) {
        return handle.player->selectTrack(static_cast<kelp::TrackKind>(kind), number);
    });
}
