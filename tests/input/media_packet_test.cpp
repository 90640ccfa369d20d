#include "input/media_packet.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <locale>
#include <memory>

namespace kelp {
namespace {

TEST(MediaPacket, TellsItsKind) {
    EXPECT_EQ(VideoPacket().mediaType, 0);
    EXPECT_EQ(AudioPacket().mediaType, 1);
    EXPECT_EQ(MediaPacket().mediaType, 0);
}

TEST(MediaPacket, StartsWithoutPayloadAndTimes) {
    const VideoPacket packet;
    EXPECT_EQ(packet.data, nullptr);
    EXPECT_EQ(packet.size, 0);
    EXPECT_EQ(packet.pos, -1);
    EXPECT_EQ(packet.dts, -1);
    EXPECT_EQ(packet.pts, -1);
    EXPECT_EQ(packet.duration, -1);
    EXPECT_EQ(packet.timeBaseNum, 1);
    EXPECT_EQ(packet.timeBaseDen, 1);
    EXPECT_EQ(packet.flags, 0);
    EXPECT_FALSE(packet.flush);
    EXPECT_FALSE(packet.keyFrame);
    EXPECT_FALSE(packet.foundKeyFrame);
}

TEST(MediaPacket, PrintsItsDefaults) {
    EXPECT_EQ(VideoPacket().toString(),
              "{ size:0, pos:-1, dts:-1, pts:-1, duration:-1, dts_ms:-1000, pts_ms:-1000, duration_ms:-1000, "
              "time_base:(1:1), flags:0 }");
}

TEST(MediaPacket, PrintsNoMillisecondsWithoutADenominator) {
    AudioPacket packet;
    packet.timeBaseDen = 0;
    EXPECT_EQ(packet.toString(), "{ size:0, pos:-1, dts:-1, pts:-1, duration:-1, time_base:(1:0), flags:0 }");
}

TEST(MediaPacket, PrintsTruncatedMilliseconds) {
    VideoPacket packet;
    packet.data = new unsigned char[3];
    packet.size = 3;
    packet.pos = 4096;
    packet.dts = -12345;
    packet.pts = 12345;
    packet.duration = 3600;
    packet.timeBaseNum = 1;
    packet.timeBaseDen = 90000;
    packet.flags = 5;
    EXPECT_EQ(packet.toString(),
              "{ size:3, pos:4096, dts:-12345, pts:12345, duration:3600, dts_ms:-137, pts_ms:137, duration_ms:40, "
              "time_base:(1:90000), flags:5 }");
}

TEST(MediaPacket, MultipliesBeforeItDivides) {
    VideoPacket packet;
    packet.dts = packet.pts = packet.duration = 1;
    packet.timeBaseNum = 1001;
    packet.timeBaseDen = 30000;
    EXPECT_NE(packet.toString().find("dts_ms:33, pts_ms:33, duration_ms:33,"), std::string::npos);
}

TEST(MediaPacket, PrintsTimesOfAnySize) {
    VideoPacket packet;
    packet.pts = std::numeric_limits<int64_t>::min();
    packet.dts = std::numeric_limits<int64_t>::max();
    packet.timeBaseDen = -1;
    const std::string text = packet.toString();
    EXPECT_NE(text.find("dts:9223372036854775807, pts:-9223372036854775808,"), std::string::npos) << text;
}

TEST(MediaPacket, PrintsPlainDigitsWhateverTheHostsLocale) {
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale old = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    VideoPacket packet;
    packet.pos = 1234567;
    const std::string text = packet.toString();
    std::locale::global(old);
    EXPECT_NE(text.find("pos:1234567,"), std::string::npos) << text;
}

// The leak check sees a payload that stays behind.
TEST(MediaPacket, FreesItsPayloadThroughTheBase) {
    std::shared_ptr<MediaPacket> packet = std::make_shared<AudioPacket>();
    packet->data = new unsigned char[1000];
    packet->size = 1000;
    std::memset(packet->data, 1, 1000);
    std::weak_ptr<MediaPacket> watch = packet;
    packet.reset();
    EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace kelp
