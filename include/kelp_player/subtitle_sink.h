#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelp {

// One subtitle of text.
struct SubtitleLine {
    int64_t startMs = 0;  // on the stream's time line, in milliseconds
    int64_t endMs = -1;   // the first moment at which it is gone; -1 where only the next one tells
    std::string text;     // to be read, in UTF-8, with "\n" between its lines
    // The same with its styles: a line of a script of ASS, "Dialogue:
    // 0,0:00:01.00,0:00:02.50,Default,,0,0,0,,{\i1}Hello".
    std::string styled;
};

// A drawn part of what is to be seen. Valid during the call.
struct SubtitlePicture {
    int x = 0;       // where it goes, on a screen of the size that `pictureSize` has given, in pixels
    int y = 0;       // likewise, from the top
    int width = 0;   // how large it is there
    int height = 0;  // likewise
    // Its own size: that of above for text; for subtitles that are pictures their own, to be scaled.
    int pixelWidth = 0;
    int pixelHeight = 0;  // likewise
    // Rows of `pixelWidth` pixels without gaps, four bytes each: red, green, blue, and how much of what is below they
    // cover, 0 to 255. The colours aren't multiplied by that.
    const uint8_t* pixels = nullptr;
};

// What is to be seen at a moment.
struct ShownSubtitles {
    int64_t timeMs = 0;                     // of the film's picture that it goes with
    std::vector<SubtitleLine> lines;        // by their start; empty for subtitles that are pictures
    std::string script;                     // the head that the styled lines belong to, with the styles' definitions
    std::vector<SubtitlePicture> pictures;  // the first one lowest; empty unless they are wanted
};

// The size of a screen, in pixels.
struct SubtitlePictureSize {
    int width = 0;   // 0 by 0 for no pictures
    int height = 0;  // likewise
};

// Takes the subtitles of the track that is played, for a host that shows them itself: the host implements it and hands
// it to `setSubtitleSink` of a player. The object stays the host's. Windows draw them in any case. They go with
// pictures: a source without video has none, nor one with an attached picture alone.
//
// Both operations are called on the player's subtitle thread, one at a time. Nothing else waits for that thread, but
// windows for their subtitles and `stop` for its end, so little may be called from here: of a KelpPlayer the `get`
// operations, `clearScreen`, `takeSnapshot`, `setSubtitleSink`, `runInWorker`, `addTimer` and `removeTimer`; of a
// TarnPlayer `getTracks`, `getStatistics` and the last five alone. They must not throw.
class ExternSubtitleSink {
public:
    // What is to be seen has changed: it is all that stands now, nothing where all has gone. Comes when the picture is
    // shown that it goes with, at every speed, behind a seek as well; for a moving line as often as it is drawn anew,
    // if pictures are wanted; and with nothing at the end of a playback, if something stood there.
    virtual void onSubtitles(const ShownSubtitles& subtitles) = 0;

    // How large the screen is that subtitles are to be drawn for; asked before each drawing. Nothing is drawn for 0 by
    // 0.
    virtual SubtitlePictureSize pictureSize() { return {}; }

protected:
    // Not virtual: players never destroy it.
    ~ExternSubtitleSink() = default;
};

}  // namespace kelp
