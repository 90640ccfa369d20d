#pragma once

#include <cstdint>

struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace kelp {

// Takes what the parser reads of the subtitle track that is chosen. All calls come on the parser's thread, or before it
// runs on the one that opens.
class SubtitleTaker {
public:
    // `stream` of `input` is read from here on. The playback's position 0 is `originUs` of the input's time.
    virtual void onSubtitleStream(const AVFormatContext& input, const AVStream& stream, int64_t originUs) = 0;

    // The next packet of it; it may have come before.
    virtual void onSubtitlePacket(const AVPacket& packet) = 0;

    // What comes next doesn't go on from what came last.
    virtual void onSubtitleGap() = 0;
    // Nor does it at the next turn of a loop, but what was read up to its end is all there is.
    virtual void onSubtitleTurn() = 0;

protected:
    // Nobody deletes a taker through this interface.
    ~SubtitleTaker() = default;
};

}  // namespace kelp
