#include "kelp_player/recorder.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "input/packet_outlet.h"
#include "output/media_reader.h"
#include "support/gate.h"
#include "support/log_capture.h"
#include "support/temp_files.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

// Files that a recorder makes of packets, as a player's reading hands them out.

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kPictures = 75;
constexpr int kPerKeyFrame = 12;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class Told : public RecorderObserver {
public:
    void onFileBegun(const std::string& path) override {
        begun.push_back(path);
        inBegun();
    }
    void onFileEnded(const std::string& path, int64_t durationMs) override {
        ended.push_back(path);
        endedMs += durationMs;
    }
    void onPacketsLost(int packets) override { lost += packets; }
    void onRecordingFailed(const std::string& path, const std::string& reason) override {
        failures.push_back(path + ": " + reason);
    }

    // The recorder's thread's until it has stopped, but for the packets.
    std::vector<std::string> begun;
    std::vector<std::string> ended;
    std::vector<std::string> failures;
    int64_t endedMs = 0;
    std::atomic<int> lost{0};
    std::function<void()> inBegun = [] {};
};
#pragma GCC diagnostic pop

// Reads a file and hands its first video and its first sound to a sink, packet by packet.
class Feed {
public:
    Feed(Recorder& recorder, const std::string& path) : recorder_(recorder) {
        outlet_.set(&recorder);
        if (avformat_open_input(&context_, path.c_str(), nullptr, nullptr) < 0 ||
            avformat_find_stream_info(context_, nullptr) < 0) {
            throw std::runtime_error("can't be read: " + path);
        }
        for (unsigned int i = 0; i < context_->nb_streams; ++i) {
            const AVStream* const stream = context_->streams[i];
            (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO ? source_.video : source_.audio) = stream;
        }
    }
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;
    ~Feed() { avformat_close_input(&context_); }

    // Up to so many pictures, or to the end. Whether any is left.
    bool pictures(int count) {
        AVPacket* packet = av_packet_alloc();
        while (count > 0 && av_read_frame(context_, packet) >= 0) {
            const bool isPicture = source_.video && packet->stream_index == source_.video->index;
            count -= isPicture;
            if (isPicture && untimed_ > 0) {
                packet->pts = isFirst_ ? AV_NOPTS_VALUE : packet->pts;
                packet->dts = AV_NOPTS_VALUE;
                isFirst_ = false;
                --untimed_;
            }
            if (!soundLeftOut_ || packet->stream_index == source_.video->index) {
                outlet_.packet(source_, *packet);
            }
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
        return count == 0;
    }
    void all() { pictures(1 << 30); }
    // So many pictures at first have no time of decoding, and the very first has no time at all.
    void takeFirstTimes(int pictures) { untimed_ = pictures; }
    void leaveSoundOut() { soundLeftOut_ = true; }
    AVCodecParameters& video() { return *source_.video->codecpar; }
    void again() { avformat_seek_file(context_, -1, INT64_MIN, 0, INT64_MAX, 0); }
    void gap() { outlet_.gap(); }
    void end() { outlet_.end(); }

private:
    Recorder& recorder_;
    PacketOutlet outlet_;
    AVFormatContext* context_ = nullptr;
    PacketSource source_{};
    bool soundLeftOut_ = false;
    int untimed_ = 0;
    bool isFirst_ = true;
};

std::string outputOf(const std::string& command) {
    std::string text;
    FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
    char part[512];
    while (fgets(part, sizeof part, pipe)) {
        text += part;
    }
    pclose(pipe);
    return text;
}

// What decoding all of it complains about.
std::string complaintsOf(const std::string& path) {
    return outputOf("ffmpeg -v error -nostdin -i " + path + " -map 0 -f null -");
}

int soundPackets(const std::string& path) {
    return std::atoi(outputOf("ffprobe -v error -select_streams a -count_packets -show_entries "
                              "stream=nb_read_packets -of csv=p=0 " +
                              path)
                         .c_str());
}

std::vector<std::string> picturesOf(const std::vector<std::string>& paths) {
    std::vector<std::string> pictures;
    for (const auto& path : paths) {
        const auto some = readVideo(path).pictures;
        pictures.insert(pictures.end(), some.begin(), some.end());
    }
    return pictures;
}

// How long before it is shown a picture is decoded at most.
double longestReorderingMs(const std::string& path) {
    std::istringstream packets(
        outputOf("ffprobe -v error -select_streams v -show_entries packet=pts_time,dts_time -of csv=p=0 " + path));
    double longest = 0;
    char comma = 0;
    for (double pts = 0, dts = 0; packets >> pts >> comma >> dts;) {
        longest = std::max(longest, (pts - dts) * 1000);
    }
    return longest;
}

// When each picture is shown behind the first that is, in the order of the file.
std::vector<double> timesMsOf(const std::string& path) {
    const auto video = readVideo(path);
    int64_t first = INT64_MAX;
    for (const auto& frame : video.frames) {
        first = std::min(first, frame.pts);
    }
    std::vector<double> times;
    for (const auto& frame : video.frames) {
        times.push_back(static_cast<double>(frame.pts - first) * 1000 / video.timeBaseDen);
    }
    return times;
}

class RecorderTest : public testing::Test {
protected:
    RecorderTest() {
        av_log_set_level(AV_LOG_QUIET);
        film_ = make("film.mp4", "");
    }
    ~RecorderTest() override { av_log_set_level(AV_LOG_INFO); }

    std::string make(const std::string& name, const std::string& arguments) {
        runFFmpeg(
            "-f lavfi -i testsrc2=size=160x120:rate=25 -f lavfi -i sine=440:r=48000 -t 3 -c:v libx264 "
            "-preset ultrafast -bf 2 -g 12 -keyint_min 12 -sc_threshold 0 -c:a aac " +
            arguments + " " + folder_.path(name));
        return folder_.path(name);
    }
    std::string path(const std::string& name) const { return folder_.path(name); }
    // One file behind the other.
    std::string joined(const std::string& first, const std::string& second) const {
        std::ofstream both(path("both.ts"), std::ios::binary);
        both << std::ifstream(path(first), std::ios::binary).rdbuf()
             << std::ifstream(path(second), std::ios::binary).rdbuf();
        return path("both.ts");
    }

    void expectWhole(const std::vector<std::string>& files, size_t from = 0) {
        for (const auto& file : files) {
            EXPECT_EQ(complaintsOf(file), "") << file;
        }
        auto expected = readVideo(film_).pictures;
        ASSERT_EQ(expected.size(), static_cast<size_t>(kPictures));
        expected.erase(expected.begin(), expected.begin() + static_cast<ptrdiff_t>(from));
        const auto got = picturesOf(files);
        ASSERT_EQ(got.size(), expected.size());
        EXPECT_TRUE(got == expected) << "other pictures";
    }

    TempFolder folder_;
    std::string film_;
    Told told_;
    Recorder recorder_{&told_};
};

class RecorderOf : public RecorderTest, public testing::WithParamInterface<const char*> {};

TEST_P(RecorderOf, HoldsEveryPictureAndAllOfTheSound) {
    for (const std::string source : {"mp4", "ts"}) {
        const std::string from = source == "mp4" ? film_ : make("film.ts", "");
        const std::string file = path("of_" + source + GetParam());
        ASSERT_TRUE(recorder_.start(file));
        Feed feed(recorder_, from);
        feed.all();
        recorder_.stop();
        EXPECT_THAT(told_.failures, IsEmpty());
        expectWhole({file});
        EXPECT_EQ(timesMsOf(file), timesMsOf(film_));
        EXPECT_EQ(soundPackets(file), soundPackets(from));
    }
    EXPECT_EQ(told_.begun.size(), 2U);
    EXPECT_EQ(told_.ended, told_.begun);
    EXPECT_NEAR(static_cast<double>(told_.endedMs), 6000, 200);
}

INSTANTIATE_TEST_SUITE_P(Container, RecorderOf, testing::Values(".mp4", ".mov", ".mkv", ".ts"),
                         [](const auto& container) { return std::string(container.param + 1); });

TEST_F(RecorderTest, BeginsWithTheNextKeyFrameAndEndsWhereItIsStopped) {
    Feed feed(recorder_, film_);
    feed.pictures(15);
    ASSERT_TRUE(recorder_.start(path("part.mp4")));
    EXPECT_TRUE(recorder_.isRecording());
    feed.pictures(2 * kPerKeyFrame + 9 - 3);  // 24 pictures from the next key frame on, and 6 before it
    recorder_.stop();
    EXPECT_FALSE(recorder_.isRecording());
    feed.all();
    EXPECT_EQ(complaintsOf(path("part.mp4")), "");
    const auto whole = readVideo(film_).frames;
    const auto part = readVideo(path("part.mp4")).frames;
    ASSERT_EQ(part.size(), 15U + 30 - 2 * kPerKeyFrame);
    for (size_t i = 0; i < part.size(); ++i) {
        EXPECT_EQ(part[i].bytes, whole[2 * kPerKeyFrame + i].bytes) << i;
    }
}

TEST_F(RecorderTest, LosesNothingBetweenFilesOfALength) {
    ASSERT_TRUE(recorder_.start(path("long.mkv"), {.fileMs = 900}));
    Feed feed(recorder_, film_);
    feed.all();
    recorder_.stop();
    EXPECT_THAT(told_.begun, ElementsAre(path("long.mkv"), path("long-2.mkv"), path("long-3.mkv"), path("long-4.mkv")));
    expectWhole(told_.ended);
    int sound = 0;
    for (const auto& file : told_.ended) {
        sound += soundPackets(file);
    }
    EXPECT_EQ(sound, soundPackets(film_));
}

TEST_F(RecorderTest, BeginsTheNextFileBehindASize) {
    ASSERT_TRUE(recorder_.start(path("size.mp4"), {.fileBytes = 1}));
    Feed feed(recorder_, film_);
    feed.all();
    recorder_.stop();
    EXPECT_EQ(told_.begun.size(), (kPictures + kPerKeyFrame - 1) / kPerKeyFrame);
    expectWhole(told_.ended);
}

TEST_F(RecorderTest, BeginsTheNextFileBehindTheLastByteOfASize) {
    const std::string pictures = make("pictures.mp4", "-an");
    const auto frames = readVideo(pictures).frames;
    int64_t bytes = 0;
    for (int i = 0; i < kPerKeyFrame; ++i) {
        bytes += static_cast<int64_t>(frames.at(static_cast<size_t>(i)).bytes.size());
    }
    for (const int more : {0, 1}) {
        told_.ended.clear();
        ASSERT_TRUE(recorder_.start(path("byte" + std::to_string(more) + ".mp4"), {.fileBytes = bytes + more}));
        Feed feed(recorder_, pictures);
        feed.all();
        recorder_.stop();
        EXPECT_EQ(readVideo(told_.ended.at(0)).frames.size(), static_cast<size_t>((1 + more) * kPerKeyFrame));
    }
}

TEST_F(RecorderTest, GoesOnInANewFileWherePacketsDoNotGoOn) {
    ASSERT_TRUE(recorder_.start(path("cut.mp4")));
    Feed feed(recorder_, film_);
    feed.pictures(20);
    feed.gap();
    feed.pictures(20);  // of which the first 4 are for nobody
    recorder_.stop();
    EXPECT_THAT(told_.ended, ElementsAre(path("cut.mp4"), path("cut-2.mp4")));
    EXPECT_EQ(readVideo(path("cut.mp4")).frames.size(), 20U);
    EXPECT_EQ(readVideo(path("cut-2.mp4")).frames.size(), 16U);
    EXPECT_EQ(complaintsOf(path("cut-2.mp4")), "");
}

TEST_F(RecorderTest, GoesOnInANewFileBehindARestartWithOtherStreams) {
    ASSERT_TRUE(recorder_.start(path("camera.mp4")));
    {
        Feed feed(recorder_, film_);
        feed.pictures(30);
        feed.end();
    }
    Feed feed(recorder_, make("other.mp4", "-s 320x240 -an"));
    feed.all();
    recorder_.stop();
    EXPECT_THAT(told_.ended, ElementsAre(path("camera.mp4"), path("camera-2.mp4")));
    EXPECT_EQ(readVideo(path("camera.mp4")).frames.size(), 30U);
    EXPECT_EQ(readVideo(path("camera-2.mp4")).frames.size(), static_cast<size_t>(kPictures));
    EXPECT_EQ(readVideo(path("camera-2.mp4")).width, 320);
    EXPECT_EQ(complaintsOf(path("camera-2.mp4")), "");
}

TEST_F(RecorderTest, TakesTimesThatBeginAnewInMidStream) {
    for (const char* const ending : {"mp4", "mkv", "ts"}) {
        const std::string file = path(std::string("twice.") + ending);
        ASSERT_TRUE(recorder_.start(file));
        Feed feed(recorder_, film_);
        feed.all();
        feed.again();
        feed.all();
        recorder_.stop();
        EXPECT_THAT(told_.failures, IsEmpty());
        EXPECT_EQ(readVideo(file).frames.size(), static_cast<size_t>(2 * kPictures));
        EXPECT_EQ(complaintsOf(file), "");
    }
    EXPECT_NEAR(static_cast<double>(told_.endedMs), 3 * 6100, 100);
}

TEST_F(RecorderTest, TakesASourceThatTellsNoTimesAtFirst) {
    for (const std::string ending : {"mp4", "mkv", "ts"}) {
        for (const int untimed : {1, 4, 1 << 30}) {
            const std::string file = path(std::to_string(untimed) + "_untimed." + ending);
            ASSERT_TRUE(recorder_.start(file));
            const int64_t endedMs = told_.endedMs;
            Feed feed(recorder_, film_);
            feed.takeFirstTimes(untimed);
            feed.all();
            recorder_.stop();
            EXPECT_THAT(told_.failures, IsEmpty());
            EXPECT_EQ(readVideo(file).frames.size(), static_cast<size_t>(kPictures));
            EXPECT_NEAR(static_cast<double>(told_.endedMs - endedMs), 3000, 400) << file;
            // With more of them nobody knows the times of those that are shown out of their order.
            EXPECT_TRUE(untimed > 1 || complaintsOf(file).empty()) << file;
            if (ending == "mp4" && untimed > kPictures) {
                EXPECT_NEAR(longestReorderingMs(file), 200, 0.1);
            }
        }
    }
}

TEST_F(RecorderTest, RecordsSoundAlone) {
    ASSERT_TRUE(recorder_.start(path("sound.mp4"), {.fileMs = 1100}));
    const std::string source = make("sound.m4a", "-vn");
    Feed feed(recorder_, source);
    feed.all();
    recorder_.stop();
    int sound = 0;
    for (const auto& file : told_.ended) {
        EXPECT_EQ(complaintsOf(file), "");
        sound += soundPackets(file);
    }
    EXPECT_EQ(told_.ended.size(), 3U);
    EXPECT_EQ(sound, soundPackets(source));
}

TEST_F(RecorderTest, LeavesSoundOutThatTheContainerCannotHold) {
    LogCapture log(2);
    ASSERT_TRUE(recorder_.start(path("no_sound.mp4")));
    Feed feed(recorder_, make("alaw.mov", "-c:a pcm_alaw"));
    feed.all();
    recorder_.stop();
    EXPECT_EQ(log.count("no_sound.mp4, sound of pcm_alaw doesn't go into it and is left out\n"), 1);
    expectWhole({path("no_sound.mp4")});
}

// A stream that is told of and doesn't come: what there is mustn't wait for it.
TEST_F(RecorderTest, WritesPicturesWhoseSoundDoesNotCome) {
    const std::string file = path("mute.mp4");
    ASSERT_TRUE(recorder_.start(file));
    Feed feed(recorder_, film_);
    feed.leaveSoundOut();
    feed.pictures(kPictures - 5);
    for (int i = 0; i < 500 && !(std::filesystem::exists(file) && readVideo(file).frames.size() >= 30); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_GE(readVideo(file).frames.size(), 30U);
    feed.all();
    recorder_.stop();
    expectWhole({file});
}

TEST_F(RecorderTest, KeepsTheRotation) {
    const std::string turned = path("turned.mp4");
    runFFmpeg("-i " + film_ + " -c copy -metadata:s:v rotate=90 " + turned);
    const std::string rotation = "ffprobe -v error -show_entries stream_side_data=rotation -of csv=p=0 ";
    ASSERT_NE(outputOf(rotation + turned), "");
    ASSERT_TRUE(recorder_.start(path("kept.mp4")));
    Feed feed(recorder_, turned);
    feed.all();
    recorder_.stop();
    EXPECT_EQ(outputOf(rotation + path("kept.mp4")), outputOf(rotation + turned));
}

// The parameter sets of HEVC that stand in a packet of an MP4 file, among the pictures.
std::vector<std::string> hevcSetsIn(const std::vector<unsigned char>& bytes) {
    constexpr int kVideoSets = 32;
    constexpr int kPictureSets = 34;
    std::vector<std::string> sets;
    for (size_t at = 0; at + 5 <= bytes.size();) {
        const size_t size =
            size_t{bytes[at]} << 24 | size_t{bytes[at + 1]} << 16 | size_t{bytes[at + 2]} << 8 | bytes[at + 3];
        const int kind = bytes[at + 4] >> 1 & 63;
        if (kind >= kVideoSets && kind <= kPictureSets) {
            sets.emplace_back(bytes.begin() + static_cast<ptrdiff_t>(at) + 4,
                              bytes.begin() + static_cast<ptrdiff_t>(at + 4 + size));
        }
        at += 4 + size;
    }
    return sets;
}

// What the header of a file tells a decoder.
std::string descriptionOf(const std::string& path) {
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) {
        return "";
    }
    const AVCodecParameters& parameters = *context->streams[0]->codecpar;
    std::string description(reinterpret_cast<const char*>(parameters.extradata),
                            static_cast<size_t>(parameters.extradata_size));
    avformat_close_input(&context);
    return description;
}

void expectHevcDescribed(const std::string& path) {
    EXPECT_EQ(outputOf("ffprobe -v error -show_entries stream=codec_tag_string -of csv=p=0 " + path), "hvc1\n");
    const std::string description = descriptionOf(path);
    EXPECT_FALSE(description.empty());
    for (const auto& set : hevcSetsIn(readVideo(path).frames.at(0).bytes)) {
        EXPECT_NE(description.find(set), std::string::npos) << path;
    }
}

TEST_F(RecorderTest, DescribesHevcAsAllPlayersTakeIt) {
    for (const std::string from : {"ts", "mp4"}) {
        const std::string source = path("hevc." + from);
        runFFmpeg(
            "-f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 30 -c:v libx265 -preset ultrafast "
            "-x265-params log-level=error:keyint=12 -pix_fmt yuv420p " +
            source);
        for (const std::string to : {"mp4", "mov"}) {
            const std::string file = path("of_" + from + "." + to);
            ASSERT_TRUE(recorder_.start(file));
            Feed feed(recorder_, source);
            feed.all();
            recorder_.stop();
            expectHevcDescribed(file);
            EXPECT_EQ(complaintsOf(file), "");
            const auto recorded = readVideo(file);
            EXPECT_EQ(recorded.pictures.size(), 30U);
            EXPECT_TRUE(recorded.pictures == readVideo(source).pictures) << "other pictures";
        }
    }
    EXPECT_EQ(told_.ended.size(), 4U);
}

TEST_F(RecorderTest, GoesOnInANewFileWhereTheDescriptionOfHevcChanges) {
    const std::string x265 = " -c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=12 -pix_fmt yuv420p ";
    runFFmpeg("-f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 25" + x265 + path("small.ts"));
    runFFmpeg("-f lavfi -i testsrc2=size=320x240:rate=25 -frames:v 25 -output_ts_offset 1" + x265 + path("large.ts"));
    const std::string both = joined("small.ts", "large.ts");
    ASSERT_TRUE(recorder_.start(path("grows.mp4")));
    Feed feed(recorder_, both);
    feed.all();
    recorder_.stop();
    ASSERT_THAT(told_.ended, ElementsAre(path("grows.mp4"), path("grows-2.mp4")));
    for (const auto& file : told_.ended) {
        expectHevcDescribed(file);
        EXPECT_EQ(complaintsOf(file), "");
        EXPECT_EQ(readVideo(file).frames.size(), 25U);
    }
    EXPECT_EQ(readVideo(told_.ended[0]).width, 160);
    EXPECT_EQ(readVideo(told_.ended[1]).width, 320);
}

// The source has said of the stream what its first key frame doesn't repeat.
TEST_F(RecorderTest, KeepsTheFileWhereHevcRepeatsItsDescriptionLater) {
    const std::string x265 = " -c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=25 -pix_fmt yuv420p ";
    const std::string film = "-f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 25";
    runFFmpeg(film + x265 + "-bsf:v filter_units=remove_types=32-34 " + path("bare.ts"));
    runFFmpeg(film + " -output_ts_offset 2" + x265 + path("told.ts"));
    const std::string both = joined("bare.ts", "told.ts");
    ASSERT_TRUE(recorder_.start(path("one.mp4")));
    Feed feed(recorder_, both);
    ASSERT_GT(feed.video().extradata_size, 0);
    feed.all();
    recorder_.stop();
    ASSERT_THAT(told_.ended, ElementsAre(path("one.mp4")));
    expectHevcDescribed(told_.ended[0]);
    EXPECT_EQ(complaintsOf(told_.ended[0]), "");
    EXPECT_EQ(readVideo(told_.ended[0]).pictures.size(), 50U);
}

TEST_F(RecorderTest, LeavesTheDescriptionOfHevcToThePicturesWhereItsSourceDoes) {
    runFFmpeg(
        "-f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 30 -c:v libx265 -preset ultrafast "
        "-x265-params log-level=error:keyint=12:repeat-headers=1 -pix_fmt yuv420p -tag:v hev1 " +
        path("hev1.mp4"));
    for (const std::string to : {"mp4", "mov"}) {
        // Behind the end of the record anything may stand.
        const int recordBytes = to == "mp4" ? 23 : 24;
        const std::string file = path("of_hev1." + to);
        ASSERT_TRUE(recorder_.start(file));
        Feed feed(recorder_, path("hev1.mp4"));
        ASSERT_GT(feed.video().extradata_size, recordBytes);
        feed.video().extradata[22] = 0;  // arrays of parameter sets
        feed.video().extradata_size = recordBytes;
        feed.all();
        recorder_.stop();
        EXPECT_EQ(outputOf("ffprobe -v error -show_entries stream=codec_tag_string -of csv=p=0 " + file), "hev1\n");
        EXPECT_EQ(complaintsOf(file), "");
        EXPECT_TRUE(readVideo(file).pictures == readVideo(path("hev1.mp4")).pictures) << "other pictures";
    }
    EXPECT_EQ(told_.ended.size(), 2U);
}

TEST_F(RecorderTest, EndsWithAnEventWhenTheDiskIsFull) {
    for (const std::string ending : {"mp4", "mkv", "ts"}) {
        told_.failures.clear();
        const std::string file = path("full." + ending);
        std::filesystem::create_symlink("/dev/full", file);
        LogCapture log(1);
        ASSERT_TRUE(recorder_.start(file));
        Feed feed(recorder_, film_);
        feed.all();
        feed.gap();
        recorder_.stop();
        EXPECT_THAT(told_.failures, ElementsAre(file + ": No space left on device"));
        EXPECT_EQ(log.count(file + ", the recording has ended: No space left on device\n"), 1);
    }
    EXPECT_THAT(told_.ended, IsEmpty());
    ASSERT_TRUE(recorder_.start(path("other.mp4")));
    Feed feed(recorder_, film_);
    feed.all();
    recorder_.stop();
    expectWhole({path("other.mp4")});
}

TEST_F(RecorderTest, EndsWithAnEventWhereNoFileCanBe) {
    LogCapture log(1);
    const std::string file = path("no/such/folder.mp4");
    ASSERT_TRUE(recorder_.start(file));
    Feed feed(recorder_, film_);
    feed.all();
    recorder_.stop();
    EXPECT_THAT(told_.failures, ElementsAre(file + ": No such file or directory"));
}

TEST_F(RecorderTest, RefusesANameWithoutAContainerAndASecondStart) {
    LogCapture log(1);
    EXPECT_FALSE(recorder_.start(path("film.txt")));
    EXPECT_EQ(log.count("[Recorder]: start, " + path("film.txt") + ", no container has this ending\n"), 1);
    EXPECT_TRUE(recorder_.start(path("one.mp4")));
    EXPECT_FALSE(recorder_.start(path("two.mp4")));
    EXPECT_EQ(log.count("[Recorder]: start, " + path("two.mp4") + ", it records already\n"), 1);
    recorder_.stop();
    recorder_.stop();
    EXPECT_THAT(told_.begun, IsEmpty());
}

// The file's thread is held up before its first packet, as by a disk that doesn't answer.
TEST_F(RecorderTest, NeverHoldsUpTheReaderForASlowDisk) {
    LogCapture log(2);
    Gate mayWrite;
    told_.inBegun = [&] { mayWrite.wait(); };
    const auto size = static_cast<int64_t>(std::filesystem::file_size(film_));
    ASSERT_TRUE(recorder_.start(path("slow.mp4"), {.waitingBytes = size / 2}));
    Feed feed(recorder_, film_);
    feed.pictures(60);
    mayWrite.open();
    // What waited is written some time; what comes then has room.
    for (int i = 0; i < 500 && told_.lost == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        feed.pictures(1);
        if (!feed.pictures(kPerKeyFrame)) {
            feed.again();
        }
    }
    feed.again();
    feed.pictures(kPerKeyFrame);  // of which the first one begins a file, if none has
    recorder_.stop();
    EXPECT_GT(told_.lost, 1);
    ASSERT_GE(told_.ended.size(), 2U);
    for (const auto& file : told_.ended) {
        EXPECT_EQ(complaintsOf(file), "");
        EXPECT_TRUE(readVideo(file).frames.front().keyFrame);
    }
}

TEST_F(RecorderTest, LeavesAFileThatPlaysWhenTheProcessDies) {
    for (const std::string ending : {"mp4", "mkv", "ts"}) {
        const std::string file = path("killed." + ending);
        const pid_t child = fork();
        if (child == 0) {
            Recorder recorder;
            recorder.start(file);
            Feed feed(recorder, film_);
            feed.pictures(kPictures - 5);
            // Until the file stays as it is.
            for (uintmax_t size = 0, before = 1; size != before;) {
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                std::error_code error;
                before = std::exchange(size, std::filesystem::file_size(file, error));
                before += size == 0;
            }
            kill(getpid(), SIGKILL);
        }
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status));
        EXPECT_GT(readVideo(file).pictures.size(), static_cast<size_t>(kPictures - 5 - 25 - kPerKeyFrame)) << ending;
    }
}

}  // namespace
}  // namespace kelp::test
