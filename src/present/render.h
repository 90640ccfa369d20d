#pragma once

#include <memory>

#include "decode/video_frame_info.h"
#include "kelp_player/types.h"
#include "runtime/picture_fit.h"

namespace kelp {

class SubtitleScreen;

// Puts pictures on one output. It shows what it is told when it is told; all timing lies with its owner.
//
// All operations are called on the video play thread: `init` once, then `fillFrame` and `refresh` for every drawing,
// and `close` at the end. A renderer whose `init` failed takes all of them and shows nothing.
class IRender {
public:
    virtual ~IRender() = default;

    // `window` is a handle of kind `type`, `width` and `height` its size in pixels, `fps` the stream's frame rate.
    virtual bool init(WindowType type, void* window, int width, int height, int fps) = 0;

    // What is to be shown over the pictures; behind `init`. An output that shows pictures alone doesn't look at it.
    virtual void setSubtitles(const std::shared_ptr<SubtitleScreen>& /*subtitles*/) {}

    // The window is to have another size, in pixels.
    virtual bool updateWindowSize(int width, int height) = 0;

    // How the pictures from the next drawing on lie in the output, which keeps nothing from here on; a sink gets them
    // as they are.
    virtual void setFit(PictureFit /*fit*/) {}

    // For how many milliseconds the output goes on showing `frame`, or what is there if it is empty, without being
    // drawn again; 0 if it is to be drawn now. An output that wants each drawing, as a frame sink, keeps nothing.
    virtual int keepsForMs(const std::shared_ptr<VideoFrameInfo>& /*frame*/) { return 0; }

    // Gives the picture of the next `refresh`.
    virtual bool fillFrame(std::shared_ptr<VideoFrameInfo> frame) = 0;

    // Shows the picture. Whether that was done.
    virtual bool refresh() = 0;

    // Lets the output and the picture go.
    virtual void close() = 0;

    // The same, but the picture stays on the output for as long as that keeps it, rather than black.
    virtual void leave() { close(); }
};

}  // namespace kelp
