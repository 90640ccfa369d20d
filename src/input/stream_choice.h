#pragma once

#include <string>

#include "kelp_player/types.h"
#include "runtime/playback_options.h"

extern "C" {
#include <libavutil/avutil.h>
}

struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace kelp {

// Which streams of an input are played, what their codecs are called, and what is said of an input that can't be
// played. One form takes the codecs that have a name here, believes that they can be played, and says nothing; the
// other takes every stream whose decoder opens, and no other one.
//
// A form has no state: any thread, and for good.
class StreamChoice {
public:
    static const StreamChoice& of(const PlaybackOptions& options);

    // The stream of `kind` to be played, by its index; negative if there is none. `related` is the stream of another
    // kind that it is to go with, or negative.
    virtual int best(AVFormatContext* input, AVMediaType kind, int related) const = 0;

    // Why the stream, of any kind, can't be played; null if it can.
    virtual const char* obstacle(const AVStream& stream) const = 0;

    // Whether the packet can't be decoded for want of a key.
    virtual bool isProtected(const AVPacket& packet) const = 0;

    // Whether a read that failed has met the end of the input.
    virtual bool isEnd(const AVFormatContext& input, int error) const = 0;

    // Says in plain words, to the log, why the source of this name can't be opened: an error of the library's, and what
    // it has found; null if it isn't known what the source is.
    virtual void explain(const std::string& name, int error, const AVFormatContext* input) const = 0;

    // For an AVCodecID.
    virtual VideoCodecType videoCodecType(int codecId) const = 0;
    virtual AudioCodecType audioCodecType(int codecId) const = 0;

protected:
    ~StreamChoice() = default;
};

}  // namespace kelp
