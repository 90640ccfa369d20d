#include "track_menu.h"

#include <algorithm>
#include <utility>

// [menu]
std::vector<TrackEntry> trackMenu(kelp::TarnPlayer& player, kelp::TrackKind kind) {
    std::vector<TrackEntry> entries;
    for (const kelp::Track& track : player.getTracks()) {
        if (track.kind != kind || !track.isPlayable || track.isAttachedPicture) {
            continue;
        }
        std::string label = track.title.empty() ? "Track " + std::to_string(track.number) : track.title;
        if (!track.language.empty()) {
            label += " [" + track.language + "]";
        }
        entries.push_back({std::move(label), track.number, track.isPlayed});
    }
    if (kind == kelp::TRACK_KIND_SUBTITLE && !entries.empty()) {
        const bool isAny = std::ranges::any_of(entries, &TrackEntry::isChecked);
        entries.insert(entries.begin(), {"None", -1, !isAny});
    }
    return entries;
}
// [/menu]

// [select]
bool selectNext(kelp::TarnPlayer& player, kelp::TrackKind kind) {
    const std::vector<TrackEntry> entries = trackMenu(player, kind);
    for (size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].isChecked && entries.size() > 1) {
            return player.selectTrack(kind, entries[(i + 1) % entries.size()].number);
        }
    }
    return false;
}
// [/select]
