#include "decode/packet_time.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/avutil.h>
}

#include <limits>

#include "input/media_packet.h"

namespace kelp {
namespace {

TEST(PacketTime, ScalesTicksToMilliseconds) {
    VideoPacket packet;
    packet.timeBaseNum = 1;
    packet.timeBaseDen = 90000;
    EXPECT_DOUBLE_EQ(msPerTick(packet), 1000.0 / 90000);
    EXPECT_EQ(scaleTicks(90000, msPerTick(packet)), 1000);
    // Truncated towards zero on both sides.
    EXPECT_EQ(scaleTicks(89, msPerTick(packet)), 0);
    EXPECT_EQ(scaleTicks(179, msPerTick(packet)), 1);
    EXPECT_EQ(scaleTicks(-179, msPerTick(packet)), -1);
}

TEST(PacketTime, TellsWhatItCutsOff) {
    EXPECT_EQ(fractionUs(1001, 1000.0 / 30000), 367);
    EXPECT_EQ(fractionUs(-1001, 1000.0 / 30000), -367);
    EXPECT_EQ(fractionUs(90, 1000.0 / 90000), 0);
    EXPECT_EQ(fractionUs(std::numeric_limits<int64_t>::min(), 40.0), 0);
}

TEST(PacketTime, LeavesTicksAloneWithoutATimeBase) {
    VideoPacket packet;
    packet.timeBaseNum = 7;
    packet.timeBaseDen = 0;
    EXPECT_DOUBLE_EQ(msPerTick(packet), 1.0);
    packet.timeBaseDen = -25;
    EXPECT_DOUBLE_EQ(msPerTick(packet), 1.0);
}

TEST(PacketTime, HoldsTimesThatDoNotFit) {
    EXPECT_EQ(scaleTicks(std::numeric_limits<int64_t>::max(), 40.0), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(scaleTicks(std::numeric_limits<int64_t>::min(), 40.0), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(scaleTicks(AV_NOPTS_VALUE, 1.0), AV_NOPTS_VALUE);
}

TEST(PacketTime, LendsThePacketInMilliseconds) {
    VideoPacket packet;
    packet.data = new unsigned char[3]{1, 2, 3};
    packet.size = 3;
    packet.pos = 77;
    packet.flags = AV_PKT_FLAG_KEY;
    packet.pts = 12;
    packet.dts = 10;
    packet.duration = 1;
    packet.timeBaseNum = 1;
    packet.timeBaseDen = 25;

    AVPacket lent;
    lendPacket(packet, &lent);
    EXPECT_EQ(lent.data, packet.data);
    EXPECT_EQ(lent.buf, nullptr);
    EXPECT_EQ(lent.size, 3);
    EXPECT_EQ(lent.pos, 77);
    EXPECT_EQ(lent.flags, AV_PKT_FLAG_KEY);
    EXPECT_EQ(lent.pts, 480);
    EXPECT_EQ(lent.dts, 400);
    EXPECT_EQ(lent.duration, 40);
    EXPECT_EQ(lent.side_data, nullptr);
    EXPECT_EQ(lent.side_data_elems, 0);
}

TEST(PacketTime, LendsTheSideData) {
    AVPacketSideData palette = {.data = nullptr, .size = 0, .type = AV_PKT_DATA_PALETTE};
    AVPacket source = {};
    source.side_data = &palette;
    source.side_data_elems = 1;
    VideoPacket packet;
    packet.sideData = std::shared_ptr<const AVPacket>(&source, [](const AVPacket*) {});
    AVPacket lent;
    lendPacket(packet, &lent);
    EXPECT_EQ(lent.side_data, &palette);
    EXPECT_EQ(lent.side_data_elems, 1);
}

}  // namespace
}  // namespace kelp
