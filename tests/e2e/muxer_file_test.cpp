#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/child_process.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "kelp_player/codec_info.h"
#include "kelp_player/stream_muxer.h"
#include "output/media_reader.h"
#include "support/log_capture.h"

// What StreamMuxer writes into files, by the shared library as a host uses it, seen by others: the ffprobe command and
// a player.

namespace kelp {
namespace {

using test::EncodedVideo;
using test::LogCapture;
using test::makeCodecInfo;
using test::TempFolder;
using testing::ElementsAre;

constexpr int kFrames = 40;

// Start codes, parameter sets in band, no B frames, and every fifth picture left out: the distances are 40 and 80 ms.
const EncodedVideo& source() {
    static const EncodedVideo video = test::encodeVideo(
        "-vf select='lt(mod(n\\,5)\\,4)' -fps_mode passthrough -c:v libx264 -preset veryfast -bf 0 -g 10 -threads 1 "
        "-f mpegts",
        kFrames);
    return video;
}

// A frame's own time.
int64_t timeUs(size_t index) {
    return source().frames[index].pts * 1000000 / 90000;
}

bool writeFrame(StreamMuxer& muxer, size_t index, int64_t ptsUs) {
    auto bytes = source().frames[index].bytes;
    return muxer.outputFrame(bytes.data(), static_cast<unsigned int>(bytes.size()), ptsUs,
                             source().frames[index].keyFrame);
}

// What the ffprobe command says of the packets: time stamp and key frame. It fails the test if there is an error.
struct Packet {
    int64_t pts = 0;
    int64_t dts = 0;
    bool keyFrame = false;
};

std::vector<Packet> probe(const std::string& path, const std::vector<std::string>& options = {}) {
    std::vector<std::string> command = {"ffprobe", "-v", "error"};
    command.insert(command.end(), options.begin(), options.end());
    command.insert(command.end(), {"-select_streams", "v", "-show_entries", "packet=pts,dts,flags", "-of",
                                   "compact=print_section=0:nokey=1", path});
    std::istringstream lines(test::outputOf(command));
    std::vector<Packet> packets;
    std::string line;
    while (std::getline(lines, line)) {
        Packet packet;
        char key = 0;
        long long pts = 0;
        long long dts = 0;
        if (std::sscanf(line.c_str(), "%lld|%lld|%c", &pts, &dts, &key) == 3) {
            packet = {pts, dts, key == 'K'};
            packets.push_back(packet);
        }
    }
    return packets;
}

void expectStrictlyRising(const std::vector<Packet>& packets) {
    for (size_t i = 1; i < packets.size(); ++i) {
        EXPECT_GT(packets[i].dts, packets[i - 1].dts) << "frame " << i;
        EXPECT_GT(packets[i].pts, packets[i - 1].pts) << "frame " << i;
    }
}

class MuxerFile : public testing::Test {
protected:
    // Writes all frames at the times that `time` gives for their numbers.
    template <class Time>
    void write(StreamMuxer& muxer, Time time) {
        ASSERT_TRUE(muxer.open(path_, makeCodecInfo(), 90000));
        muxer.start();
        for (size_t i = 0; i < source().frames.size(); ++i) {
            EXPECT_TRUE(writeFrame(muxer, i, time(i))) << "frame " << i;
        }
        muxer.stop();
        muxer.close();
    }
    template <class Time>
    void write(Time time) {
        write(muxer_, time);
    }

    TempFolder folder_;
    std::string path_ = folder_.path("out.mp4");
    StreamMuxer muxer_;
};

TEST_F(MuxerFile, HoldsTheFramesOfAnEncoderAtTheirOwnTimes) {
    ASSERT_EQ(source().frames.size(), static_cast<size_t>(kFrames));
    ASSERT_EQ(source().frames[4].pts - source().frames[3].pts, 7200) << "the frames have times of their own";
    write(timeUs);
    const auto packets = probe(path_);
    ASSERT_EQ(packets.size(), static_cast<size_t>(kFrames));
    expectStrictlyRising(packets);
    for (size_t i = 0; i < packets.size(); ++i) {
        EXPECT_NEAR(static_cast<double>(packets[i].pts), static_cast<double>(source().frames[i].pts), 1.0);
        EXPECT_EQ(packets[i].keyFrame, i % 10 == 0) << "frame " << i;
    }
}

TEST_F(MuxerFile, PlaysInAPlayerToTheEnd) {
    write(timeUs);
    std::vector<int64_t> expectedMs;
    for (const auto& frame : source().frames) {
        expectedMs.push_back((frame.pts - source().frames[0].pts) / 90);
    }
    expectedMs.pop_back();  // the last one has no duration, and so lies behind the end

    test::RecordingSink sink;
    test::Playback playback;
    playback.player().addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    ASSERT_TRUE(playback.open(path_));
    ASSERT_TRUE(playback.playToEnd());
    EXPECT_EQ(playback.count(test::Happened::Failed), 0);
    EXPECT_TRUE(sink.waitForPicture(expectedMs.back(), 20000));
    std::vector<int64_t> shownMs;
    for (const auto& frame : sink.frames()) {
        shownMs.push_back(frame.pts);
    }
    // A machine that can't keep up skips pictures, but neither the first nor the last.
    ASSERT_FALSE(shownMs.empty());
    EXPECT_EQ(shownMs.front(), expectedMs.front());
    EXPECT_EQ(shownMs.back(), expectedMs.back());
    EXPECT_TRUE(std::includes(expectedMs.begin(), expectedMs.end(), shownMs.begin(), shownMs.end()));
}

TEST_F(MuxerFile, ShowsItsLastFrameTooWithoutAnEditList) {
    write(timeUs);
    EXPECT_EQ(test::readVideo(path_).pictures.size(), source().pictures.size() - 1);
    StreamMuxer withoutList;
    withoutList.setOption("use_editlist", "0");
    write(withoutList, timeUs);
    EXPECT_EQ(test::readVideo(path_).pictures, source().pictures);
    EXPECT_EQ(probe(path_)[0].pts, 0);
}

struct Times {
    const char* name;
    int64_t firstUs;
    int64_t stepUs;
    std::vector<int64_t> ticks;  // of the first frames in the file, as distances from the first one
};

class MuxerFileTimes : public MuxerFile, public testing::WithParamInterface<Times> {};

TEST_P(MuxerFileTimes, RiseStrictlyInTheFile) {
    const Times& times = GetParam();
    // Sums of huge times wrap around: what a host may give by mistake.
    write([&](size_t i) {
        return static_cast<int64_t>(static_cast<uint64_t>(times.firstUs) + i * static_cast<uint64_t>(times.stepUs));
    });
    // The reader is told to show also what the file says to leave out: what is before 0, and the last frame.
    const auto packets = probe(path_, {"-ignore_editlist", "1"});
    ASSERT_EQ(packets.size(), static_cast<size_t>(kFrames));
    expectStrictlyRising(packets);
    for (size_t i = 0; i < times.ticks.size(); ++i) {
        EXPECT_EQ(packets[i].pts - packets[0].pts, times.ticks[i]) << "frame " << i;
    }
    EXPECT_EQ(test::readVideo(path_, {{"ignore_editlist", "1"}}).pictures, source().pictures);
}

INSTANTIATE_TEST_SUITE_P(Times, MuxerFileTimes,
                         testing::Values(Times{"Equal", 1000000, 0, {0, 1, 2, 3, 4}},
                                         Times{"Falling", 1000000, -40000, {0, 1, 2, 3, 4}},
                                         Times{"Negative", -800000, 40000, {0, 3600, 7200, 10800, 14400}},
                                         Times{"Huge", 4'000'000'000'000, 40000, {0, 3600, 7200, 10800, 14400}},
                                         Times{"HugeSteps", 0, 500'000'000'000'000'000, {}},
                                         Times{"Largest", INT64_MAX, 0, {0, 1, 2, 3, 4}},
                                         Times{"Smallest", INT64_MIN, 40000, {}}),
                         [](const auto& times) { return std::string(times.param.name); });

// What the class's comment tells a host.
TEST_F(MuxerFile, CutsOffWhatIsBeforeZeroUnlessItHasNoEditList) {
    const auto from = [](size_t i) { return static_cast<int64_t>(i) * 40000 - 10 * 40000; };
    write(from);
    EXPECT_EQ(test::readVideo(path_).pictures.size(), source().pictures.size() - 11);
    StreamMuxer withoutList;
    withoutList.setOption("use_editlist", "0");
    write(withoutList, from);
    EXPECT_EQ(test::readVideo(path_).pictures, source().pictures);
}

TEST_F(MuxerFile, FailsWhereNoFileCanBeMade) {
    std::ofstream(folder_.path("file")) << "no folder";
    for (const std::string& path : {folder_.path("file/out.mp4"), folder_.path("missing/out.mp4"), folder_.path("")}) {
        SCOPED_TRACE(path);
        const std::string output = path.ends_with("/") ? path + ".mp4/" : path;
        LogCapture log(1);  // errors
        EXPECT_FALSE(muxer_.open(output, makeCodecInfo(), 90000));
        EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: open, Could not open output URL '" + output + "'\n"));
        log.clear();
        EXPECT_FALSE(writeFrame(muxer_, 0, 0));
        EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: outputFrame, not open\n"));
        muxer_.stop();
        muxer_.stop();
        muxer_.close();
        muxer_.close();
    }
}

TEST_F(MuxerFile, IsNotOpenedOnAFullDisk) {
    std::filesystem::create_symlink("/dev/full", path_);
    LogCapture log(1);
    EXPECT_FALSE(muxer_.open(path_, makeCodecInfo(), 90000));
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: open, Error occurred when opening output\n"));
    muxer_.stop();
    muxer_.close();
    std::filesystem::remove(path_);
    write(timeUs);
    EXPECT_EQ(probe(path_).size(), static_cast<size_t>(kFrames));
}

// Lets no file of this process grow beyond a size while it lives: writing fails then, as on a disk that is full.
class FileLimit {
public:
    explicit FileLimit(rlim_t bytes) : oldHandler_(signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &old_);
        const rlimit limit = {bytes, old_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    FileLimit(const FileLimit&) = delete;
    FileLimit& operator=(const FileLimit&) = delete;
    ~FileLimit() {
        setrlimit(RLIMIT_FSIZE, &old_);
        signal(SIGXFSZ, oldHandler_);
    }

private:
    rlimit old_{};
    sighandler_t oldHandler_;
};

TEST_F(MuxerFile, ReportsADiskThatFillsUpWhileFramesAreWritten) {
    const size_t frames = source().frames.size();
    LogCapture log(1);
    ASSERT_TRUE(muxer_.open(path_, makeCodecInfo(), 90000));
    int refused = 0;
    {
        const FileLimit full(40000);
        for (size_t i = 0; i < 20 * frames; ++i) {
            refused += !writeFrame(muxer_, i % frames, static_cast<int64_t>(i) * 40000);
        }
        EXPECT_GT(refused, 0);
        EXPECT_EQ(log.count("outputFrame, av_interleaved_write_frame failed, ret:-27, File too large\n"), refused);
        EXPECT_EQ(log.lines().size(), static_cast<size_t>(refused));
        muxer_.stop();
        muxer_.close();
    }
    EXPECT_EQ(log.count("stop, av_write_trailer failed, ret:-27, File too large\n"), 1);
    write(timeUs);
    EXPECT_EQ(probe(path_).size(), static_cast<size_t>(kFrames));
}

TEST_F(MuxerFile, ReportsADiskThatIsFullAtTheEnd) {
    ASSERT_EQ(source().frames.size(), static_cast<size_t>(kFrames));
    LogCapture log(1);
    ASSERT_TRUE(muxer_.open(path_, makeCodecInfo(), 90000));
    ASSERT_TRUE(writeFrame(muxer_, 0, 0));
    ASSERT_TRUE(writeFrame(muxer_, 1, 40000));
    EXPECT_TRUE(log.lines().empty());
    {
        const FileLimit full(1000);
        muxer_.stop();
    }
    muxer_.close();
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: stop, av_write_trailer failed, ret:-27, File too large\n"));
}

TEST_F(MuxerFile, IsNotMadeForAStreamWithoutACodec) {
    LogCapture log(1);
    EXPECT_FALSE(muxer_.open(path_, makeCodecInfo(VIDEO_CODEC_NONE), 90000));
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: open, Error occurred when opening output\n"));
    EXPECT_FALSE(writeFrame(muxer_, 0, 0));
    muxer_.stop();
    muxer_.close();
    EXPECT_EQ(std::filesystem::file_size(path_), 0U);
}

TEST_F(MuxerFile, IsCompleteAfterStopAndCloseTwiceAndTakesNothingMore) {
    write(timeUs);
    const auto size = std::filesystem::file_size(path_);
    LogCapture log(1);
    EXPECT_FALSE(writeFrame(muxer_, 0, 5000000));
    EXPECT_THAT(log.lines(), ElementsAre("[StreamMuxer]: outputFrame, not open\n"));
    muxer_.stop();
    muxer_.close();
    muxer_.close();
    EXPECT_EQ(std::filesystem::file_size(path_), size);
}

}  // namespace
}  // namespace kelp
