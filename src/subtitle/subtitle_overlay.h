#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace kelp {

// What is drawn over a picture: rectangles of pixels, the first one lowest.
struct SubtitleOverlay {
    struct Part {
        int x = 0;  // where it goes on the screen, in the screen's pixels, like the next three
        int y = 0;
        int width = 0;
        int height = 0;
        int pixelWidth = 0;  // of its own; scaled where that isn't the size above
        int pixelHeight = 0;
        std::vector<uint8_t> pixels;  // red, green, blue, and how much they cover, of each; rows without gaps

        bool operator==(const Part&) const = default;
    };
    std::vector<Part> parts;

    bool operator==(const SubtitleOverlay&) const = default;
};
// Null where nothing is to be seen.
using DrawnSubtitles = std::shared_ptr<const SubtitleOverlay>;

// What subtitles are drawn for.
struct SubtitleScreenSize {
    int width = 0;  // in pixels
    int height = 0;
    int pictureWidth = 0;  // of the film's picture, which fills the screen, in its own pixels; 0 if it isn't known
    int pictureHeight = 0;

    bool operator==(const SubtitleScreenSize&) const = default;
};

}  // namespace kelp
