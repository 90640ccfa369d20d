#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace kelp {

// A picture with a palette, as discs and broadcasts have it.
struct SubtitleBitmap {
    int x = 0;  // on the event's canvas, in pixels, like the rest
    int y = 0;
    int width = 0;
    int height = 0;
    std::vector<uint8_t> indices;   // one for a pixel, without gaps
    std::vector<uint32_t> palette;  // 256 colours: from the highest byte on how much they cover, red, green and blue

    bool operator==(const SubtitleBitmap&) const = default;
};

// What stands on the picture for some time: a line of text, or pictures. One that has neither ends what was there.
struct SubtitleEvent {
    static constexpr int64_t kOpenEnd = std::numeric_limits<int64_t>::max();

    int64_t startMs = 0;
    int64_t endMs = kOpenEnd;  // first moment at which it is gone; kOpenEnd until the next one begins
    std::string ass;           // "Layer,Style,Name,MarginL,MarginR,MarginV,Effect,Text", as in a script of ASS
    int order = -1;            // of a script's lines: which lies upon which; -1 where they lie as they come
    std::vector<SubtitleBitmap> bitmaps;
    int canvasWidth = 0;  // that the bitmaps lie on, in pixels; 0 for the film's picture
    int canvasHeight = 0;

    bool isEmpty() const { return ass.empty() && bitmaps.empty(); }
    size_t bytes() const;

    // The last field of `ass`.
    std::string_view styledText() const;
    // The same for people to read: without what styles it, "\n" between its lines.
    std::string plainText() const;
    // It may look otherwise from one picture to the next.
    bool isMoving() const;

    bool operator==(const SubtitleEvent&) const = default;
};

}  // namespace kelp
