#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "subtitle/subtitle_overlay.h"
#include "subtitle/subtitle_track.h"
#include "subtitle/text_drawer.h"

namespace kelp {

// Draws subtitles for one screen, text and pictures. One thread at a time.
class SubtitleDrawer {
public:
    // What is to be seen at `timeMs`. The same object as before if it looks the same.
    DrawnSubtitles draw(const std::shared_ptr<const SubtitleTrack>& track, int64_t timeMs,
                        const SubtitleScreenSize& screen);

private:
    DrawnSubtitles drawBitmaps(int64_t timeMs, const SubtitleScreenSize& screen);

    std::shared_ptr<const SubtitleTrack> track_;  // of the rest
    std::unique_ptr<TextDrawer> text_;
    std::vector<SubtitleTrack::Event> drawnEvents_;  // of pictures
    SubtitleScreenSize drawnScreen_;
    DrawnSubtitles drawn_;
};

}  // namespace kelp
