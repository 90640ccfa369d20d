#include "output/recorded_streams.h"

#include <algorithm>

#include "runtime/ffmpeg_compat.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kelp {

void FreeRecordedParameters::operator()(AVCodecParameters* parameters) const {
    compat::freeParameters(&parameters);
}

RecordedStreams::RecordedStreams(const std::vector<PacketStream>& streams) {
    constexpr int kLargestDenominator = 1 << 20;
    for (const PacketStream& stream : streams) {
        if (AVCodecParameters* const copy = stream.parameters ? compat::copyParameters(*stream.parameters) : nullptr) {
            streams_.push_back({stream.track,
                                stream.kind,
                                {stream.timeBaseNum, stream.timeBaseDen},
                                av_d2q(stream.frameRate, kLargestDenominator),
                                std::unique_ptr<AVCodecParameters, FreeRecordedParameters>(copy)});
        }
    }
}

int RecordedStreams::videoTrack() const {
    const auto found = std::ranges::find(streams_, TRACK_KIND_VIDEO, &Stream::kind);
    return found != streams_.end() ? found->track : -1;
}

}  // namespace kelp
