#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "input/source_options.h"

struct AVDictionary;
struct AVFormatContext;
struct AVIOContext;

namespace kelp {

// Goes along with what an input opens itself: its own file, the playlists and segments of HLS.
//
// Of one input, which calls it on whatever thread opens or reads it, and which it outlives.
class InputParts {
public:
    // Servers of HTTP that drop a connection are asked again as `options` say. With `beginUs` an HLS film begins with
    // the segments that hold that time, in microseconds from its beginning; it mustn't keep connections then.
    explicit InputParts(const OptionMap& options, int64_t beginUs = 0);
    InputParts(const InputParts&) = delete;
    InputParts& operator=(const InputParts&) = delete;
    ~InputParts();

    // `input`, which is about to be opened, opens its parts by way of this, and has it as `opaque`.
    void watch(AVFormatContext& input);

private:
    static int open(AVFormatContext* input, AVIOContext** io, const char* url, int flags, AVDictionary** options);
    static int close(AVFormatContext* input, AVIOContext* io);

    // Puts what is left of it in the place of a playlist that was just opened. 0, or an error of FFmpeg's.
    int cut(AVFormatContext& input, AVIOContext** io);
    // What the library would take on from the connection of the input's own file.
    void inherit(AVIOContext& io);

    OptionMap reconnect_;
    int64_t beginUs_;
    bool isInList_ = true;        // no segment was opened yet
    OptionMap inherited_;         // for parts over HTTP, from the playlist that was cut
    AVIOContext* own_ = nullptr;  // what `input` has as its file; it doesn't close that
};

}  // namespace kelp
