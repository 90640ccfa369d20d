#include "decode/decoding_order.h"

#include <gmock/gmock.h>

#include <vector>

#include "decode/ff_video_decoder_fixture.h"

namespace kelp::test {
namespace {

using testing::ElementsAre;

// The times of pictures that come out behind packets 0 to `packets`, each by its own.
std::vector<int64_t> timesOf(DecodingOrder& order, int packets, const std::vector<int64_t>& owns, size_t reordered) {
    for (int packet = 0; packet < packets; ++packet) {
        order.noteSent(packet, true);
    }
    std::vector<int64_t> times;
    for (const int64_t own : owns) {
        times.push_back(order.isOn() ? order.takeTime(own, reordered) : -1);
    }
    return times;
}

TEST(DecodingOrder, GivesTheTimesInTheOrderInWhichPicturesComeOut) {
    DecodingOrder order;
    EXPECT_THAT(timesOf(order, 7, {0, 2, 3, 1, 5, 6, 4}, 2), ElementsAre(0, 1, 2, 3, 4, 5, 6));
    EXPECT_FALSE(order.isOn());
}

TEST(DecodingOrder, LeavesPicturesWhereTheyAreWhereNoneIsReordered) {
    DecodingOrder order;
    EXPECT_THAT(timesOf(order, 6, {0, 1, 1, 3, 4}, 0), ElementsAre(0, 1, 1, 3, 4))
        << "two of one packet, and none of 2";
}

// Packet 3 was damaged: the next picture that is decoded as late as can be tells that it isn't waited for.
TEST(DecodingOrder, FindsItsPlaceAgainBehindAPictureThatNeverCame) {
    DecodingOrder order;
    EXPECT_THAT(timesOf(order, 10, {0, 2, 1, 5, 6, 4, 8, 9, 7}, 1), ElementsAre(0, 1, 2, 4, 5, 6, 7, 8, 9));
}

TEST(DecodingOrder, EndsWithAPacketThatTellsMore) {
    DecodingOrder order;
    EXPECT_FALSE(order.isOn());
    order.noteSent(0, true);
    EXPECT_TRUE(order.isOn());
    order.noteSent(40, false);
    EXPECT_FALSE(order.isOn());
    order.noteSent(80, true);
    EXPECT_FALSE(order.isOn());
}

// It states the times of its pictures, and nothing tells before the first B-picture.
TEST(DecodingOrder, EndsWhereTimesGoBack) {
    DecodingOrder order;
    order.noteSent(0, true);
    order.noteSent(120, true);
    order.noteSent(40, true);
    EXPECT_FALSE(order.isOn());
}

TEST(DecodingOrder, BeginsAnewBehindAFlush) {
    DecodingOrder order;
    order.noteSent(1000, true);
    order.flush();
    EXPECT_FALSE(order.isOn());
    order.noteSent(500, true);
    order.noteSent(540, true);
    EXPECT_EQ(order.takeTime(540, 2), 500);
    EXPECT_EQ(order.takeTime(500, 2), 540);
}

TEST(DecodingOrder, DoesNotGrowWithoutEnd) {
    DecodingOrder order;
    for (int packet = 0; packet < 100'000; ++packet) {
        order.noteSent(packet, true);
    }
    EXPECT_EQ(order.takeTime(99'999, 1000), 99'872);
}

// The stream has announced two pictures that are decoded early. The packet at 40 ms gives none.
TEST_F(FFVideoDecoderFixture, OrdersPicturesByPacketsOnceOneIsReordered) {
    for (const bool isReordered : {false, true}) {
        openScripted();
        videoFakes().opened.back().context->has_b_frames = 2;
        for (const int64_t pts : {0, 40, 80}) {
            const auto packet = makeVideoPacket(pts);
            packet->isTimedByOrder = true;
            decoder_->insertPacket(packet.get());
        }
        observer_->frames.clear();
        for (const int64_t pts : {0, 80}) {
            auto picture = makePicture(pts);
            picture->pict_type = isReordered && pts == 0 ? AV_PICTURE_TYPE_B : AV_PICTURE_TYPE_P;
            show(std::move(picture));
        }
        EXPECT_THAT(observer_->times(), ElementsAre(0, isReordered ? 40 : 80));
        decoder_->close();
        decoder_ = std::make_shared<FFVideoDecoder>();
    }
}

class DecodingOrderOf : public FFVideoDecoderFixture, public testing::WithParamInterface<const char*> {};

// Pictures of real streams whose packets have lost their times.
TEST_P(DecodingOrderOf, StreamsWithoutTimesShowsTheirPicturesEvenly) {
    const std::string options = GetParam();
    const bool isHevc = options.find("x265") != std::string::npos;
    const VideoStream stream = makeVideoStream(options, isHevc ? "hevc" : "h264", 160, 96, 60);
    for (const bool isTimedByOrder : {true, false}) {
        decoder_->close();
        decoder_ = std::make_shared<FFVideoDecoder>();
        decoder_->enableHardware(false, HW_DECODE_NONE);
        ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), false, stream.pixFormat));
        observer_->frames.clear();
        int64_t next = 0;
        for (const auto& packet : stream.packets) {
            packet->pts = packet->dts = next;
            packet->timeBaseNum = 1;
            packet->timeBaseDen = 1000;
            packet->isTimedByOrder = isTimedByOrder;
            decoder_->insertPacket(packet.get());
            next += 40;
        }
        decoder_->insertPacket(makeEndPacket(true).get());
        std::vector<int64_t> even;
        for (int64_t ms = 0; ms < next; ms += 40) {
            even.push_back(ms);
        }
        EXPECT_EQ(observer_->times() == even, isTimedByOrder) << testing::PrintToString(observer_->times());
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, DecodingOrderOf,
                         testing::Values("-c:v libx264 -bf 5 -b_strategy 0 -x264-params b-pyramid=normal -g 25 "
                                         "-pix_fmt yuv420p",
                                         "-c:v libx265 -x265-params log-level=none:keyint=25:bframes=4 "
                                         "-pix_fmt yuv420p"));

}  // namespace
}  // namespace kelp::test
