#include "subtitle/subtitle_decoder.h"

#include <gmock/gmock.h>

#include <limits>
#include <optional>
#include <string>

#include "support/log_capture.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t kFarthest = std::numeric_limits<int64_t>::max();

std::unique_ptr<SubtitleDecoder> open(AVCodecID codec, AVRational timeBase, int64_t originUs = 0) {
    AVCodecParameters* parameters = avcodec_parameters_alloc();
    parameters->codec_type = AVMEDIA_TYPE_SUBTITLE;
    parameters->codec_id = codec;
    auto decoder = SubtitleDecoder::open(*parameters, timeBase, originUs);
    avcodec_parameters_free(&parameters);
    return decoder;
}

// Without a `dts` it is the `pts`.
std::vector<SubtitleEvent> decode(SubtitleDecoder& decoder, const std::string& data, int64_t pts, int64_t duration,
                                  std::optional<int64_t> dts = std::nullopt) {
    AVPacket* packet = av_packet_alloc();
    av_new_packet(packet, static_cast<int>(data.size()));
    data.copy(reinterpret_cast<char*>(packet->data), data.size());
    packet->pts = pts;
    packet->dts = dts.value_or(pts);
    packet->duration = duration;
    auto events = decoder.decode(*packet);
    av_packet_free(&packet);
    return events;
}

TEST(SubtitleDecoder, TakesAnyTimes) {
    for (const int64_t origin : {-kFarthest, int64_t{0}, kFarthest}) {
        for (const AVRational timeBase : {AVRational{1, 1'000'000}, AVRational{1, 1000}, AVRational{1000, 1}}) {
            const auto decoder = open(AV_CODEC_ID_SUBRIP, timeBase, origin);
            for (const int64_t pts : {-kFarthest, int64_t{-1}, int64_t{1}, kFarthest}) {
                for (const int64_t duration : {int64_t{0}, int64_t{1}, kFarthest / 1000, kFarthest}) {
                    for (const auto& event : decode(*decoder, "x", pts, duration)) {
                        EXPECT_LE(event.startMs, event.endMs) << pts << " " << duration;
                    }
                }
            }
        }
    }
    const auto decoder = open(AV_CODEC_ID_SUBRIP, {1, 1000});
    const auto events = decode(*decoder, "x", 1000, kFarthest);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].startMs, 1000);
    EXPECT_EQ(events[0].endMs, SubtitleEvent::kOpenEnd);
}

TEST(SubtitleDecoder, TakesTheTimeOfDecodingWhereThereIsNoOther) {
    constexpr int64_t kNone = AV_NOPTS_VALUE;
    const auto decoder = open(AV_CODEC_ID_SUBRIP, {1, 1000}, 500'000);
    const auto timesOf = [&](int64_t pts, int64_t dts, int64_t duration) {
        std::vector<int64_t> times;
        for (const auto& event : decode(*decoder, "x", pts, duration, dts)) {
            times = {event.startMs, event.endMs};
        }
        return times;
    };
    EXPECT_THAT(timesOf(2000, 1000, 300), ElementsAre(1500, 1800));
    EXPECT_THAT(timesOf(kNone, 1000, 300), ElementsAre(500, 800));
    EXPECT_THAT(timesOf(kNone, 1000, 0), ElementsAre(500, SubtitleEvent::kOpenEnd));
    EXPECT_THAT(timesOf(kNone, kNone, 300), IsEmpty());
}

TEST(SubtitleDecoder, TellsOnceOfWhatItCantRead) {
    LogCapture log;
    const auto decoder = open(AV_CODEC_ID_SUBRIP, {1, 1000});
    for (const int64_t pts : {1000, 2000}) {
        EXPECT_THAT(decode(*decoder, "\x81", pts, 500), IsEmpty()) << "no character of any charset";
    }
    EXPECT_EQ(log.count("the text isn't UTF-8 and is taken for WINDOWS-1252\n"), 1);
    EXPECT_EQ(log.count("a packet of subrip is left out: "), 1);
    EXPECT_EQ(decode(*decoder, "x", 3000, 500).size(), 1U);
    EXPECT_EQ(open(AV_CODEC_ID_H264, {1, 1000}), nullptr);
    EXPECT_EQ(log.count("open, no decoder for h264 can be opened\n"), 1);
}

std::string number(int value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) {
        text += static_cast<char>(value >> (8 * i) & 0xFF);
    }
    return text;
}

std::string segment(int type, const std::string& content) {
    return number(type, 1) + number(static_cast<int>(content.size()), 2) + content;
}

// Of a blue-ray disc: one picture twice, on a canvas of 8000x8000.
std::string twoPictures(int width, int height) {
    std::string rows;
    for (int y = 0; y < height; ++y) {
        rows += number(0, 1) + number(0xC000 | width, 2) + number(1, 1) + number(0, 2);
    }
    const std::string place = number(0, 2) + number(0, 1) + number(0, 1);
    return segment(0x16, number(8000, 2) + number(8000, 2) + number(0x10, 1) + number(0, 2) + number(0x80, 1) +
                             number(0, 2) + number(2, 1) + place + number(0, 4) + place + number(10, 2) +
                             number(10, 2)) +
           segment(0x14,
                   number(0, 2) + number(1, 1) + number(200, 1) + number(128, 1) + number(128, 1) + number(255, 1)) +
           segment(0x15, number(0, 2) + number(0, 1) + number(0xC0, 1) + number(static_cast<int>(rows.size()) + 4, 3) +
                             number(width, 2) + number(height, 2) + rows) +
           segment(0x80, "");
}

TEST(SubtitleDecoder, LeavesOutPicturesThatWouldTakeTooMuchMemory) {
    const auto decoder = open(AV_CODEC_ID_HDMV_PGS_SUBTITLE, {1, 1000});
    const auto small = decode(*decoder, twoPictures(4000, 2000), 1000, 0);
    ASSERT_EQ(small.size(), 1U);
    EXPECT_EQ(small[0].bitmaps.size(), 2U);
    const auto large = decode(*decoder, twoPictures(4000, 2001), 2000, 0);
    ASSERT_EQ(large.size(), 1U);
    ASSERT_EQ(large[0].bitmaps.size(), 1U);
    EXPECT_EQ(large[0].bitmaps[0].height, 2001);
}

}  // namespace
}  // namespace kelp::test
