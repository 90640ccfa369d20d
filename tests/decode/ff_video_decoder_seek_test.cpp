// What a seek leaves out on its way changes nothing of what is shown.

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "decode/ff_video_decoder_fixture.h"
#include "decode/packet_time.h"
#include "decode/seek_skip.h"
#include "support/sanitizers.h"

namespace kelp::test {
namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 96;
constexpr int kFrames = 110;
constexpr int kAllRounds = 15;
constexpr int kRounds = roundsWithThreadSanitizer(kAllRounds);

struct Clip {
    const char* name;
    const char* options;  // of the ffmpeg command
    const char* extension;
    bool leavesOut;  // pictures that nothing refers to
};

void PrintTo(const Clip& clip, std::ostream* out) {
    *out << clip.name;
}

int64_t timeMs(const VideoPacket& packet) {
    return scaleTicks(packet.pts, msPerTick(packet));
}

// A picture as the play thread sees it.
struct Picture {
    int64_t pts;
    int64_t duration;  // the decoder's
    int64_t distance;  // to the next one, if that is later
    std::vector<uint8_t> bytes;

    bool operator==(const Picture&) const = default;
    bool reaches(int64_t target, int64_t length) const { return pts == target || pts + length - 1 >= target; }
};

// The pictures that can be the one shown, by whether the next one is queued when the play thread looks.
std::vector<Picture> candidates(const std::vector<Picture>& pictures, int64_t target) {
    std::vector<Picture> result;
    for (const Picture& picture : pictures) {
        const bool early = picture.reaches(target, picture.duration);
        const bool late = picture.reaches(target, picture.distance);
        if (early || late) {
            result.push_back(picture);
        }
        if (early && late) {
            break;
        }
    }
    return result;
}

// The same but for the decoder's duration where the next picture's counts anyway.
std::vector<std::pair<int64_t, std::vector<uint8_t>>> shown(const std::vector<Picture>& pictures) {
    std::vector<std::pair<int64_t, std::vector<uint8_t>>> result;
    for (const Picture& picture : pictures) {
        result.emplace_back(picture.pts, picture.bytes);
    }
    return result;
}

class FFVideoDecoderSeekTest : public FFVideoDecoderFixture, public testing::WithParamInterface<Clip> {
protected:
    static VideoStream makeStream(const Clip& clip) {
        VideoStream stream = makeVideoStream(clip.options, clip.extension, kWidth, kHeight, kFrames);
        for (const auto& packet : stream.packets) {
            // As the parser has it.
            packet->pts = packet->pts == AV_NOPTS_VALUE ? packet->dts : packet->pts;
        }
        return stream;
    }

    void openFor(const VideoStream& stream) {
        decoder_->enableHardware(false, HW_DECODE_NONE);
        ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), false, stream.pixFormat));
    }

    // A seek: from the key frame at `first` to the end, with up to `behind` packets known behind each. Without a target
    // nothing is left out.
    std::vector<Picture> decode(const VideoStream& stream, size_t first, size_t behind, int64_t target) {
        SeekSkip skip(SeekSkip::kShortestLeadInMs);
        if (target != SeekSkip::kNone) {
            skip.aim(target, /*flush=*/true);
        }
        videoFakes().received = 0;
        observer_->frames.clear();
        decoder_->flush();
        for (size_t i = first; i < stream.packets.size(); ++i) {
            const auto begin = stream.packets.begin() + static_cast<ptrdiff_t>(i) + 1;
            const auto end = begin + std::min<ptrdiff_t>(static_cast<ptrdiff_t>(behind), stream.packets.end() - begin);
            skip.take(*stream.packets[i], SeekSkip::Packets(begin, end));
            decoder_->setNeededFrom(skip.neededFromMs());
            decoder_->insertPacket(stream.packets[i].get());
            decoder_->setInsertedBehindTarget(skip.takenBehind());
        }
        decoder_->insertPacket(makeEndPacket(true).get());
        std::vector<Picture> pictures;
        for (const auto& frame : observer_->frames) {
            if (!pictures.empty() && frame->pts > pictures.back().pts) {
                pictures.back().distance = frame->pts - pictures.back().pts;
            }
            pictures.push_back({frame->pts, frame->duration, frame->duration, planesOf(*frame)});
        }
        return pictures;
    }
};

TEST_P(FFVideoDecoderSeekTest, ShowsThePictureThatItShowsWithNothingLeftOut) {
    const VideoStream stream = makeStream(GetParam());
    openFor(stream);
    std::vector<size_t> keys;
    for (size_t i = 0; i < stream.packets.size(); ++i) {
        if (stream.packets[i]->keyFrame) {
            keys.push_back(i);
        }
    }
    // The library learns here which of a packet's times it can trust.
    decode(stream, 0, 0, SeekSkip::kNone);
    std::mt19937 random(1);
    int leftOut = 0;
    int undelivered = 0;
    for (int round = 0; round < kRounds; ++round) {
        const size_t first = keys[random() % keys.size()];
        const size_t behind = random() % 80;
        const int64_t start = timeMs(*stream.packets[first]);
        const int64_t target = start + static_cast<int64_t>(random() % 5000);
        const auto all = decode(stream, first, behind, SeekSkip::kNone);
        const int received = videoFakes().received;
        const auto some = decode(stream, first, behind, target);
        leftOut += received - videoFakes().received;
        undelivered += static_cast<int>(all.size() - some.size());
        ASSERT_FALSE(all.empty());
        // Behind the end the last time known is the limit.
        const int64_t limit = std::min(
            target,
            std::max_element(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.pts < b.pts; })->pts);
        EXPECT_EQ(shown(candidates(some, limit)), shown(candidates(all, limit)))
            << "from " << start << " to " << target;
        // And on from there.
        const auto after = [limit](const Picture& picture) { return picture.pts > limit - 100; };
        std::vector<Picture> allAfter;
        std::vector<Picture> someAfter;
        std::copy_if(all.begin(), all.end(), std::back_inserter(allAfter), after);
        std::copy_if(some.begin(), some.end(), std::back_inserter(someAfter), after);
        EXPECT_TRUE(allAfter == someAfter) << "from " << start << " to " << target;
    }
    if (kRounds == kAllRounds) {  // the same rounds each time, so a few of them needn't show it again
        EXPECT_EQ(leftOut > 0, GetParam().leavesOut) << leftOut;
        EXPECT_GT(undelivered, 20);
    }
    EXPECT_EQ(log_.count("Error"), 0);
}

constexpr char kX264[] = "-c:v libx264 -pix_fmt yuv420p -bf 2 -g 50";
// The x265 that comes with FFmpeg 7 asks how many layers, the older one whether.
constexpr const char* kTwoLayers =
    LIBAVCODEC_VERSION_MAJOR >= 61
        ? "-c:v libx265 -pix_fmt yuv420p -x265-params log-level=none:keyint=25:temporal-layers=2:bframes=4"
        : "-c:v libx265 -pix_fmt yuv420p -x265-params log-level=none:keyint=25:temporal-layers=1:bframes=4";

INSTANTIATE_TEST_SUITE_P(
    Clips, FFVideoDecoderSeekTest,
    testing::Values(
        Clip{"TwoBFrames", kX264, "ts", true},
        Clip{"NoBFrames", "-c:v libx264 -pix_fmt yuv420p -bf 0 -g 50", "ts", false},
        Clip{"PyramidOfFour", "-c:v libx264 -pix_fmt yuv420p -bf 4 -b_strategy 0 -x264-params b-pyramid=normal -g 55",
             "ts", true},
        Clip{"SixteenBFrames", "-c:v libx264 -pix_fmt yuv420p -bf 16 -b_strategy 0 -g 55", "ts", true},
        Clip{"OpenGroups", "-c:v libx264 -pix_fmt yuv420p -x264-params open-gop=1:bframes=3:keyint=20:min-keyint=20",
             "ts", true},
        Clip{"ShortGroups", "-c:v libx264 -pix_fmt yuv420p -bf 3 -g 25", "ts", true},
        Clip{"Fields", "-c:v libx264 -pix_fmt yuv420p -flags +ilme+ildct -bf 2 -g 50", "ts", true},
        Clip{"TwoAndAHalfPerSecond", "-vf setpts=N*0.4/TB,fps=2.5 -c:v libx264 -pix_fmt yuv420p -bf 2 -g 30", "ts",
             true},
        // By the ticks of 25 per second.
        Clip{"AnyRate",
             "-vf \"setpts='if(eq(N,0),0,PREV_OUTPTS+1+floor(random(1)*4))'\" -fps_mode vfr -c:v libx264 "
             "-pix_fmt yuv420p -bf 3 -g 50",
             "ts", true},
        Clip{"AnyRateWithGaps",
             "-vf \"setpts='if(eq(N,0),0,PREV_OUTPTS+1+floor(pow(random(1),6)*40))'\" -fps_mode "
             "vfr -c:v libx264 -pix_fmt yuv420p -bf 3 -g 50",
             "ts", true},
        // Its container tells no times of showing.
        Clip{"NoTimesOfShowing", kX264, "avi", false},
        Clip{"Hevc", "-c:v libx265 -pix_fmt yuv420p -x265-params log-level=none:keyint=25:bframes=4:open-gop=0", "ts",
             true},
        Clip{"HevcOpenGroups",
             "-c:v libx265 -pix_fmt yuv420p -x265-params log-level=none:keyint=25:bframes=3:open-gop=1", "ts", true},
        Clip{"HevcEverything", "-c:v libx265 -pix_fmt yuv420p -x265-params log-level=none:keyint=25:bframes=4", "ts",
             true},
        // A picture that its own layer doesn't refer to may serve the next one.
        Clip{"HevcLayers", kTwoLayers, "ts", false}, Clip{"Mpeg4", "-c:v mpeg4 -bf 2 -g 50", "mp4", true},
        Clip{"Mpeg4Avi", "-c:v mpeg4 -bf 2 -g 50", "avi", false}, Clip{"MsMpeg4", "-c:v msmpeg4v3 -g 50", "avi", false},
        Clip{"Mjpeg", "-c:v mjpeg", "mov", false}),
    [](const auto& clip) { return std::string(clip.param.name); });

// A packet that is refused, or one of which a later picture needs something, would show here.
TEST_F(FFVideoDecoderFixture, LeavesOutExactlyThePicturesThatNothingRefersTo) {
    const VideoStream stream =
        makeVideoStream("-c:v libx264 -pix_fmt yuv420p -bf 2 -b_strategy 0 -x264-params b-pyramid=none -g 60", "ts",
                        kWidth, kHeight, 60);
    decoder_->enableHardware(false, HW_DECODE_NONE);
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), false, stream.pixFormat));
    const int64_t neededFrom = timeMs(*stream.packets[0]) + 1000;
    for (const auto& packet : stream.packets) {
        decoder_->setNeededFrom(neededFrom);
        decoder_->insertPacket(packet.get());
    }
    decoder_->insertPacket(makeEndPacket(true).get());
    // Before the time: the first, which tells of the size, and every third as what others refer to.
    EXPECT_EQ(videoFakes().received, 9 + 35);
    EXPECT_EQ(observer_->times().size(), 1U + 35);
    EXPECT_EQ(observer_->times()[1], neededFrom);
    EXPECT_EQ(observer_->sizesAsked.size(), 1U + 35);
}

// Without it, it would come with the next packet but two.
TEST_F(FFVideoDecoderFixture, GivesOutThePictureThatASeekWaitsForBeforeItsThreadsTurnComes) {
    const VideoStream stream =
        makeVideoStream("-c:v libx264 -pix_fmt yuv420p -bf 2 -b_strategy 0 -x264-params b-pyramid=none -g 60", "ts",
                        kWidth, kHeight, 60);
    decoder_->enableHardware(false, HW_DECODE_NONE);
    ASSERT_TRUE(open(stream.codecType, stream.parameters.get(), false, stream.pixFormat));
    // One that others refer to, and the two before it that follow it.
    constexpr size_t kTarget = 30;
    const int64_t target = timeMs(*stream.packets[kTarget + 2]);
    const auto insertTo = [&](size_t end) {
        for (size_t i = videoFakes().sent.size(); i < end; ++i) {
            decoder_->insertPacket(stream.packets[i].get());
            decoder_->setInsertedBehindTarget(-1);
        }
    };
    insertTo(kTarget + 3);
    ASSERT_LT(observer_->times().back(), target);
    decoder_->setInsertedBehindTarget(0);
    EXPECT_EQ(videoFakes().sent.size(), kTarget + 3);
    decoder_->setInsertedBehindTarget(1);
    EXPECT_EQ(videoFakes().sent.size(), kTarget + 3 + 3);
    EXPECT_EQ(observer_->times().back(), target);
    // Once.
    decoder_->setInsertedBehindTarget(2);
    EXPECT_EQ(videoFakes().sent.size(), kTarget + 3 + 3);
}

TEST_F(FFVideoDecoderFixture, DeliversAnUnneededPictureOfAnotherShape) {
    openScripted();
    decoder_->setNeededFrom(1000);
    show(makePicture(0));
    show(makePicture(40));
    show(makePicture(80, 32, 16));
    show(makePicture(120, 32, 16));
    auto turned = makePicture(160, 32, 16);
    addDisplayMatrix(turned.get(), 90);
    show(std::move(turned));
    show(makePicture(200, 32, 16));
    show(makePicture(999, 32, 16));
    show(makePicture(1000, 32, 16));
    EXPECT_THAT(observer_->times(), testing::ElementsAre(0, 80, 160, 1000));
}

// A slice that nothing refers to, and what stands beside it.
std::shared_ptr<VideoPacket> makeUnreferenced(int64_t pts, int64_t dts) {
    auto packet = makeVideoPacket(pts);
    packet->dts = dts;
    const unsigned char bytes[] = {0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x01, 0x80, 0x10};
    std::copy(std::begin(bytes), std::end(bytes), packet->data);
    return packet;
}

TEST_F(FFVideoDecoderFixture, LeavesNothingOutOfWhatHardwareDecodes) {
    videoFakes().findByName = [](const char*) { return realDecoder(AV_CODEC_ID_H264); };
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    script();
    decoder_->setNeededFrom(1000);
    decoder_->insertPacket(makeUnreferenced(40, 0).get());
    EXPECT_EQ(videoFakes().sent.size(), 1U);
}

TEST_F(FFVideoDecoderFixture, LeavesOutNothingFromTheTimeThatIsNeeded) {
    decoder_->enableHardware(false, HW_DECODE_NONE);
    ASSERT_TRUE(open(VIDEO_CODEC_H264));
    script();
    const auto isSent = [&](int64_t pts, int64_t neededFrom, int64_t dts) {
        const size_t before = videoFakes().sent.size();
        decoder_->setNeededFrom(neededFrom);
        decoder_->insertPacket(makeUnreferenced(pts, dts).get());
        return videoFakes().sent.size() > before;
    };
    // So far no packet has told two times.
    EXPECT_TRUE(isSent(0, 1000, 0));
    EXPECT_FALSE(isSent(120, 1000, 40));
    EXPECT_FALSE(isSent(80, 1000, 80));
    EXPECT_TRUE(isSent(1000, 1000, 120));
    EXPECT_TRUE(isSent(960, 960, 160));
    EXPECT_TRUE(isSent(960, SeekSkip::kNone, 200));
}

}  // namespace
}  // namespace kelp::test
