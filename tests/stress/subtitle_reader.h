#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <numeric>

#include "kelp_player/subtitle_sink.h"

namespace kelp::test {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Has subtitles drawn, and reads every byte of them, so that a sanitizer sees what isn't there. Any number of players.
class SubtitleReader final : public ExternSubtitleSink {
public:
    void onSubtitles(const ShownSubtitles& subtitles) override {
        uint64_t sum = 0;
        for (const SubtitleLine& line : subtitles.lines) {
            sum += line.text.size() + line.styled.size();
        }
        for (const SubtitlePicture& picture : subtitles.pictures) {
            const auto bytes = static_cast<ptrdiff_t>(picture.pixelWidth) * picture.pixelHeight * 4;
            sum = std::accumulate(picture.pixels, picture.pixels + bytes, sum);
        }
        sum_ += sum;
    }
    SubtitlePictureSize pictureSize() override { return {320, 180}; }

private:
    std::atomic<uint64_t> sum_{0};
};
#pragma GCC diagnostic pop

}  // namespace kelp::test
