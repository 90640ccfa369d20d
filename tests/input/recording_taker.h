#pragma once

#include <string>
#include <vector>

#include "input/subtitle_taker.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace kelp::test {

// Writes down what the parser tells of subtitles: "stream NUMBER ORIGIN", "packet PTS", "gap", "turn". Read it when the
// parser has stopped.
class RecordingTaker : public SubtitleTaker {
public:
    virtual ~RecordingTaker() = default;

    void onSubtitleStream(const AVFormatContext&, const AVStream& stream, int64_t originUs) override {
        calls.push_back("stream " + std::to_string(stream.index) + " " + std::to_string(originUs));
    }
    void onSubtitlePacket(const AVPacket& packet) override { calls.push_back("packet " + std::to_string(packet.pts)); }
    void onSubtitleGap() override { calls.emplace_back("gap"); }
    void onSubtitleTurn() override { calls.emplace_back("turn"); }

    std::vector<std::string> calls;
};

}  // namespace kelp::test
