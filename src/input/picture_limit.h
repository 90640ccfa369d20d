#pragma once

#include <cstdint>
#include <vector>

extern "C" {
#include <libavutil/avutil.h>
}

struct AVDictionary;
struct AVFormatContext;
struct AVStream;

namespace kelp {

// What the library's decoders are told of each stream that an input has, when they probe it: that nobody looks at the
// pictures, so that none is smoothed, which changes nothing of what is found, and how many pixels one may have. Of
// streams that turn up while it is probed they aren't told. One that meets a larger picture forgets the size that the
// container has stated.
class ProbeOptions {
public:
    // No limit for 0.
    ProbeOptions(const AVFormatContext& input, int64_t maxPixels);
    ~ProbeOptions();
    ProbeOptions(const ProbeOptions&) = delete;
    ProbeOptions& operator=(const ProbeOptions&) = delete;

    // For avformat_find_stream_info, or null.
    AVDictionary** get() { return streams_.empty() ? nullptr : streams_.data(); }

    // Behind that: gives each stream the size back that was forgotten.
    void restoreSizes(const AVFormatContext& input) const;

private:
    struct Size {
        int width;
        int height;
    };
    std::vector<AVDictionary*> streams_;
    std::vector<Size> stated_;
};

// Whether pictures of this stream have `maxPixels` at most, or as many as they like, for 0.
bool isWithin(const AVStream& stream, int64_t maxPixels);

// While it is there, streams of larger pictures are of no kind: nothing chooses them. The log tells of each.
class LargeStreamsHidden {
public:
    LargeStreamsHidden(const AVFormatContext& input, int64_t maxPixels);
    ~LargeStreamsHidden();
    LargeStreamsHidden(const LargeStreamsHidden&) = delete;
    LargeStreamsHidden& operator=(const LargeStreamsHidden&) = delete;

    bool any() const { return !hidden_.empty(); }

private:
    std::vector<AVStream*> hidden_;
};

}  // namespace kelp
