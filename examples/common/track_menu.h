#pragma once

#include <string>
#include <vector>

#include "kelp_player/tarn_player.h"

// One entry of a menu of tracks.
struct TrackEntry {
    std::string label;  // in UTF-8
    int number = 0;     // what `selectTrack` takes
    bool isChecked = false;
};

// The entries of one kind, such as all sounds; empty before `onPrepared`.
std::vector<TrackEntry> trackMenu(kelp::TarnPlayer& player, kelp::TrackKind kind);

// Goes on to the next entry of this kind. False if there is no other one, or it can't be played.
bool selectNext(kelp::TarnPlayer& player, kelp::TrackKind kind);
