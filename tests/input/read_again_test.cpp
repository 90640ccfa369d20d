#include "input/read_again.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/avutil.h>
}

namespace kelp::test {
namespace {

AVPacket packetOf(int64_t pts, int64_t dts, int64_t pos, int size = 10) {
    AVPacket packet{};
    packet.pts = pts;
    packet.dts = dts;
    packet.pos = pos;
    packet.size = size;
    return packet;
}

TEST(ReadAgain, KnowsNothingUntilTheInputGoesBack) {
    ReadAgain again;
    EXPECT_FALSE(again.wasHandedOn(packetOf(0, 0, 0)));
    again.note(packetOf(0, 0, 0));
    EXPECT_FALSE(again.wasHandedOn(packetOf(0, 0, 0)));
    EXPECT_FALSE(again.isActive());
}

TEST(ReadAgain, EndsWithThePacketThatWasTheLast) {
    ReadAgain again;
    again.note(packetOf(0, 0, 0));
    again.note(packetOf(40, 20, 100));
    again.begin();
    EXPECT_TRUE(again.wasHandedOn(packetOf(0, 0, 0)));
    EXPECT_TRUE(again.isActive());
    EXPECT_TRUE(again.wasHandedOn(packetOf(40, 20, 100)));
    EXPECT_FALSE(again.isActive());
    EXPECT_FALSE(again.wasHandedOn(packetOf(20, 40, 200)));
}

TEST(ReadAgain, EndsBehindItWhereItDoesNotComeAgain) {
    ReadAgain again;
    again.note(packetOf(40, 20, 100));
    again.begin();
    EXPECT_TRUE(again.wasHandedOn(packetOf(40, 20, -1)));
    EXPECT_FALSE(again.wasHandedOn(packetOf(80, 40, -1)));
    EXPECT_FALSE(again.isActive());
}

TEST(ReadAgain, FindsItByItsPlaceWhereThereAreNoTimes) {
    ReadAgain again;
    again.note(packetOf(AV_NOPTS_VALUE, AV_NOPTS_VALUE, 300));
    again.begin();
    for (const int64_t pos : {100, 200}) {
        EXPECT_TRUE(again.wasHandedOn(packetOf(AV_NOPTS_VALUE, AV_NOPTS_VALUE, pos)));
    }
    EXPECT_TRUE(again.wasHandedOn(packetOf(AV_NOPTS_VALUE, AV_NOPTS_VALUE, 300)));
    EXPECT_FALSE(again.wasHandedOn(packetOf(AV_NOPTS_VALUE, AV_NOPTS_VALUE, 400)));
}

TEST(ReadAgain, HasNothingToFindBehindAnyOtherPlace) {
    ReadAgain again;
    again.begin();
    EXPECT_FALSE(again.isActive());
    again.note(packetOf(40, 20, 100));
    again.begin();
    again.forget();
    EXPECT_FALSE(again.wasHandedOn(packetOf(0, 0, 0)));
    again.begin();
    EXPECT_FALSE(again.isActive());
}

}  // namespace
}  // namespace kelp::test
