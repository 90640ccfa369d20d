#pragma once

#include <cstdint>

namespace kelp {

// Takes pictures instead of a window: the host implements it and passes its address as the handle of a window of
// WINDOW_TYPE_EXTERN. The object stays the host's. It must live until the player was stopped; or, once its window was
// removed, until the player begins to draw anew, since it lets go of the sink right before that. The player repaints at
// least every 50 ms or so while it plays or is paused, but draws nothing while it skips frames on the way to the target
// of a seek.
//
// Both operations are called on the player's video thread, one at a time. A sink that blocks holds up presentation on
// all windows of the player, and `stop`. Another thread may be waiting for this very call to return, so little may be
// called from here: of a KelpPlayer the `get` operations, `clearScreen`, `takeSnapshot`, `runInWorker`, `addTimer` and
// `removeTimer`; of a TarnPlayer, which holds a lock through its own `stop`, the last four, `getTracks` and
// `getStatistics` alone.
class ExternFrameSink {
public:
    // The size of the pictures to come, in pixels, and the stream's whole frames per second, 30 if that isn't known;
    // called before the first picture and before the first one of another size. Bytes that were not decoded count as 0
    // by 0.
    virtual void onVideoSize(int width, int height, int fps) = 0;

    // One picture. `pixFormat` is a PixFormat: PIX_FMT_YUV420P, or PIX_FMT_PACKET for bytes that were not decoded.
    // `pts` is its time on the stream's time line, in milliseconds. `data` and `linesize` point at 8 entries each, of
    // which 0 to 2 are the planes Y, U, V and their bytes per row; the chroma planes have half the width and height,
    // rounded down. A row has as many bytes as the plane is wide; more with the option "pictures" as "shared", and then
    // nobody may write to them. With PIX_FMT_PACKET entry 0 alone is set, to the bytes and their number. All are valid
    // during the call only. `rotate` is the clockwise rotation for display, in degrees from 0 to 359. `frameTag` is 0,
    // or with PIX_FMT_PACKET the packet's time in the stream's own units, from the stream's start.
    //
    // The same picture comes again on each repaint: while the next one is waited for, and while the player is paused.
    // A screen that was cleared comes as that picture, black, with a `pts` lower by 1 for each `clearScreen`; bytes
    // that were not decoded stay as they are. The result says whether the sink took the picture; nothing depends on it.
    virtual bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate,
                              int64_t frameTag) = 0;

protected:
    // Not virtual: players never destroy it.
    ~ExternFrameSink() = default;
};

}  // namespace kelp
