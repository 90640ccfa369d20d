#include "output/parameter_sets.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>

#include "output/media_reader.h"
#include "output/written_sets.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mem.h>
}

namespace kelp::test {
namespace {

using testing::IsEmpty;

struct FreeParts {
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

ParameterSets setsOf(const Bytes& said) {
    const std::unique_ptr<AVCodecParameters, FreeParts> parameters(avcodec_parameters_alloc());
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = AV_CODEC_ID_H264;
    if (!said.empty()) {
        parameters->extradata = static_cast<uint8_t*>(av_mallocz(said.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        parameters->extradata_size = static_cast<int>(said.size());
        std::ranges::copy(said, parameters->extradata);
    }
    return ParameterSets(*parameters);
}

Bytes foundIn(ParameterSets& sets, const Bytes& bytes) {
    const std::unique_ptr<AVPacket, FreeParts> packet(av_packet_alloc());
    av_new_packet(packet.get(), static_cast<int>(bytes.size()));
    std::ranges::copy(bytes, packet->data);
    return sets.in(*packet);
}

TEST(ParameterSets, AreFoundInWhatWasSaidAndAmongThePictures) {
    const auto video = encodeVideo("-c:v libx264 -preset ultrafast -g 5 -f h264", 7);
    ASSERT_EQ(video.frames.size(), 7U);
    const Bytes& key = video.frames[0].bytes;
    ParameterSets untold = setsOf({});
    EXPECT_TRUE(untold.canBeFound());
    EXPECT_THAT(untold.described(), IsEmpty());
    const Bytes found = foundIn(untold, key);
    EXPECT_FALSE(found.empty());
    EXPECT_THAT(foundIn(untold, video.frames[1].bytes), IsEmpty());
    EXPECT_EQ(foundIn(untold, video.frames[5].bytes), found);
    ParameterSets told = setsOf(key);
    EXPECT_EQ(told.described(), found);
    EXPECT_THAT(foundIn(told, video.frames[1].bytes), IsEmpty());
    EXPECT_FALSE(setsOf({1, 0x64, 0, 0x1E, 0xFF, 0xE1}).canBeFound()) << "a record";
}

}  // namespace
}  // namespace kelp::test
