#pragma once

#include <memory>
#include <vector>

#include "kelp_player/packet_sink.h"

extern "C" {
#include <libavutil/rational.h>
}

struct AVCodecParameters;

namespace kelp {

struct FreeRecordedParameters {
    void operator()(AVCodecParameters* parameters) const;
};

// What a file has to know of the streams that go into it: a copy, which files and threads share.
class RecordedStreams {
public:
    struct Stream {
        int track;
        TrackKind kind;
        AVRational timeBase;
        AVRational frameRate;  // 0 where it isn't known
        std::unique_ptr<AVCodecParameters, FreeRecordedParameters> parameters;
    };

    // Without those that have no parameters.
    explicit RecordedStreams(const std::vector<PacketStream>& streams);

    const std::vector<Stream>& streams() const { return streams_; }
    // The number of the video; -1 without one.
    int videoTrack() const;

private:
    std::vector<Stream> streams_;
};

}  // namespace kelp
