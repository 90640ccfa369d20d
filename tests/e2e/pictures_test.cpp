// Every picture of every file, compared with what the ffmpeg command decodes. The video play thread follows no master
// here, so that no picture is skipped.

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/reference.h"
#include "support/temp_files.h"

namespace kelp::test {
namespace {

class Pictures : public testing::TestWithParam<const char*> {};

TEST_P(Pictures, AreThoseOfTheFile) {
    const MediaFile& file = mediaFile(GetParam());
    const std::string path = mediaPath(file.name);
    RecordingSink sink(file.plainYuv ? RecordingSink::Keep::Hashes : RecordingSink::Keep::Bytes);
    Playback playback;
    playback.player().setAVSyncMode(SYNC_MASTER_VIDEO);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(path)) << path;
    ASSERT_TRUE(playback.playToEnd()) << path;
    sink.waitForFrames(file.frames, 20000);  // the last ones may still be on their way
    playback.player().stop();

    ReferencePictures reference(path);
    std::vector<uint8_t> expected;
    const auto frames = sink.frames();
    int64_t lastPts = -1;
    for (size_t i = 0; i < frames.size(); ++i) {
        const ShownFrame& frame = frames[i];
        SCOPED_TRACE("picture " + std::to_string(i) + ", pts " + std::to_string(frame.pts) + " of " + path);
        EXPECT_EQ(frame.pixFormat, PIX_FMT_YUV420P);
        EXPECT_EQ(frame.frameTag, 0);
        EXPECT_GT(frame.pts, lastPts);
        lastPts = frame.pts;
        ASSERT_TRUE(reference.next(frame.width, frame.height, expected)) << "the file has fewer pictures";
        if (file.plainYuv) {
            ASSERT_EQ(frame.hash, hashBytes(expected.data(), expected.size()));
        } else {
            ASSERT_GT(psnr(frame.bytes, cropChroma(expected, frame.width, frame.height)), 40.0);
        }
    }
    EXPECT_FALSE(reference.next(2, 2, expected)) << "the file has more pictures than the " << frames.size() << " shown";
    EXPECT_EQ(frames.size(), static_cast<size_t>(file.frames));
}

INSTANTIATE_TEST_SUITE_P(Of, Pictures,
                         testing::Values("everyday.mp4", "small.mp4", "hevc.ts", "hevc_size_change.ts", "mpeg4.avi",
                                         "msmpeg4v3.avi", "mjpeg_alaw.mov", "vfr.mkv", "rotated.mp4", "hevc10.mkv",
                                         "h264_422.mkv", "odd_width.avi", "h264_ac3.mp4"),
                         [](const auto& test) {
                             std::string name = test.param;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

// As the decoder tells it: the stream itself says of which brightness it is.
TEST(Pictures, OfHdrAreMappedAsTheCommandMapsThem) {
    for (const std::string transfer : {"smpte2084", "arib-std-b67"}) {
        SCOPED_TRACE(transfer);
        const TempFolder folder;
        const std::string path = folder.path("hdr.mkv");
        const std::string raw = folder.path("reference.yuv");
        runFFmpeg(
            "-f lavfi -i testsrc2=size=320x180:rate=25:duration=1 -c:v libx265 -preset ultrafast -pix_fmt "
            "yuv420p10le -x265-params log-level=error:colorprim=bt2020:colormatrix=bt2020nc:transfer=" +
            transfer + " " + path);
        runFFmpeg("-i " + path +
                  " -vf zscale=t=linear:npl=203:p=bt709,format=gbrpf32le,tonemap=mobius:desat=0:peak=1000/203,"
                  "zscale=t=bt709:m=bt709:r=limited:d=ordered,format=yuv420p -f rawvideo " +
                  raw);
        RecordingSink sink(RecordingSink::Keep::Bytes);
        Playback playback;
        playback.player().setOption("codecs", "all");
        playback.player().setAVSyncMode(SYNC_MASTER_VIDEO);
        playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
        ASSERT_TRUE(playback.open(path));
        ASSERT_TRUE(playback.playToEnd());
        sink.waitForFrames(25, 20000);
        playback.player().stop();
        const auto frames = sink.frames();
        EXPECT_THAT(frames, testing::SizeIs(25));
        std::ifstream reference(raw, std::ios::binary);
        for (const auto& frame : frames) {
            std::vector<uint8_t> expected(frame.bytes.size());
            ASSERT_TRUE(reference.read(reinterpret_cast<char*>(expected.data()), std::ssize(expected)));
            int largest = 0;
            for (size_t i = 0; i < expected.size(); ++i) {
                largest = std::max(largest, std::abs(frame.bytes[i] - expected[i]));
            }
            EXPECT_LE(largest, 1) << frame.pts;
        }
    }
}

TEST(Pictures, OfASizeThatChangesTellTheSinkAndTheHost) {
    RecordingSink sink;
    Playback playback;
    playback.player().setAVSyncMode(SYNC_MASTER_VIDEO);
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(mediaPath("hevc_size_change.ts")));
    ASSERT_TRUE(playback.playToEnd());
    std::vector<Event> sizes;
    for (const auto& event : playback.events()) {
        if (event.what == Happened::SizeUpdated) {
            sizes.push_back(event);
        }
    }
    EXPECT_THAT(sizes, testing::ElementsAre(Event{Happened::SizeUpdated, 320, 180, 0},
                                            Event{Happened::SizeUpdated, 640, 360, 0}));
    EXPECT_THAT(sink.sizes(), testing::ElementsAre(std::array<int, 3>{320, 180, 25}, std::array<int, 3>{640, 360, 25}));
}

TEST(Pictures, ThatGrowBeyondTheLimitAreNotDecoded) {
    RecordingSink sink(RecordingSink::Keep::Nothing);
    Playback playback;
    playback.player().setOption("max_pixels", "100000");
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(mediaPath("hevc_size_change.ts")));
    ASSERT_TRUE(playback.playToEnd());
    const auto frames = sink.frames();
    EXPECT_EQ(frames.size(), 38U);
    for (const auto& frame : frames) {
        EXPECT_EQ(frame.width, 320);
    }
}

TEST(Pictures, OfARotatedFileCarryTheRotation) {
    RecordingSink sink;
    Playback playback;
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(mediaPath("rotated.mp4")));
    ASSERT_TRUE(playback.player().play());
    ASSERT_TRUE(sink.waitForFrames(5, 10000));
    for (const auto& frame : sink.frames()) {
        EXPECT_EQ(frame.rotate, 90);
    }
    // The size is known when the file is open, the rotation with the first picture.
    ASSERT_TRUE(playback.waitFor(Happened::SizeUpdated, 10000, 2));
    EXPECT_EQ(playback.first(Happened::SizeUpdated), (Event{Happened::SizeUpdated, 320, 180, 0}));
    EXPECT_EQ(playback.last(Happened::SizeUpdated), (Event{Happened::SizeUpdated, 320, 180, 90}));
    EXPECT_EQ(playback.player().getPlayDetailInfo(INFO_ROTATE), 90);
}

}  // namespace
}  // namespace kelp::test
