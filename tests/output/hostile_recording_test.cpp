// Streams whose parameter sets are broken, changed or told late, in a recorder.

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <limits>
#include <memory>
#include <thread>

#include "kelp_player/recorder.h"
#include "output/media_reader.h"
#include "output/written_sets.h"
#include "support/log_capture.h"
#include "support/temp_files.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kCountedFor = 0x7FFFFFFE;
constexpr int64_t kPictureTicks = 3600;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class Outcome : public RecorderObserver {
public:
    void onFileEnded(const std::string& path, int64_t /*durationMs*/) override { ended.push_back(path); }
    void onRecordingFailed(const std::string& path, const std::string& reason) override {
        failures.push_back(path + ": " + reason);
    }

    // The recorder's thread's until it has stopped.
    std::vector<std::string> ended;
    std::vector<std::string> failures;
};
#pragma GCC diagnostic pop

struct Freer {
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using Parameters = std::unique_ptr<AVCodecParameters, Freer>;
using Input = std::unique_ptr<AVFormatContext, Freer>;

Input openedFile(const std::string& path) {
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) >= 0) {
        avformat_find_stream_info(context, nullptr);
    }
    return Input(context);
}

Bytes configurationOf(const std::string& path) {
    const Input file = openedFile(path);
    if (!file) {
        return {};
    }
    const AVCodecParameters& parameters = *file->streams[0]->codecpar;
    return {parameters.extradata, parameters.extradata + parameters.extradata_size};
}

void configure(AVCodecParameters& parameters, const Bytes& configuration) {
    av_freep(&parameters.extradata);
    parameters.extradata_size = static_cast<int>(configuration.size());
    if (!configuration.empty()) {
        parameters.extradata = static_cast<uint8_t*>(av_mallocz(configuration.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        std::ranges::copy(configuration, parameters.extradata);
    }
}

class HostileRecording : public testing::Test {
protected:
    HostileRecording() { av_log_set_level(AV_LOG_QUIET); }
    ~HostileRecording() override { av_log_set_level(AV_LOG_INFO); }

    std::string path(const std::string& name) const { return folder_.path(name); }
    std::string make(const std::string& name, const std::string& arguments) const {
        runFFmpeg("-f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 10 -pix_fmt yuv420p " + arguments + " " +
                  path(name));
        return path(name);
    }
    std::string makeHevc(const std::string& name, const std::string& more = "") const {
        return make(name, "-c:v libx265 -preset ultrafast -x265-params log-level=none:keyint=5:pools=1" + more);
    }

    void tell(AVCodecID codec, const Bytes& configuration, bool withSound = false) {
        for (const auto& parameters : {&video_, &sound_}) {
            parameters->reset(avcodec_parameters_alloc());
        }
        video_->codec_type = AVMEDIA_TYPE_VIDEO;
        video_->codec_id = codec;
        video_->width = 160;
        video_->height = 120;
        configure(*video_, configuration);
        sound_->codec_type = AVMEDIA_TYPE_AUDIO;
        sound_->codec_id = AV_CODEC_ID_MP3;
        sound_->sample_rate = 44100;
        std::vector<PacketStream> streams(withSound ? 2 : 1);
        for (size_t i = 0; i < streams.size(); ++i) {
            streams[i].track = static_cast<int>(i);
            streams[i].kind = i == 0 ? TRACK_KIND_VIDEO : TRACK_KIND_AUDIO;
            streams[i].timeBaseNum = 1;
            streams[i].timeBaseDen = 90000;
            streams[i].parameters = i == 0 ? video_.get() : sound_.get();
        }
        recorder_.onStreams(streams);
        time_ = 0;
    }
    void give(const Bytes& frame, bool isKeyFrame = true, int64_t ticks = kPictureTicks) {
        const std::unique_ptr<AVPacket, Freer> packet(av_packet_alloc());
        av_new_packet(packet.get(), static_cast<int>(frame.size()));
        std::ranges::copy(frame, packet->data);
        packet->stream_index = 0;
        packet->flags = isKeyFrame ? AV_PKT_FLAG_KEY : 0;
        packet->pts = packet->dts = time_;
        time_ += ticks;
        Packet told;
        told.track = 0;
        told.packet = packet.get();
        recorder_.onPacket(told);
    }
    // As it was read; `configuration` in place of its own.
    void record(const std::string& from, const std::string& to, const Bytes* configuration = nullptr) {
        ASSERT_TRUE(recorder_.start(to));
        const Input file = openedFile(from);
        ASSERT_TRUE(file);
        const AVStream& stream = *file->streams[0];
        if (configuration) {
            configure(*stream.codecpar, *configuration);
        }
        PacketStream told;
        told.track = 0;
        told.kind = TRACK_KIND_VIDEO;
        told.timeBaseNum = stream.time_base.num;
        told.timeBaseDen = stream.time_base.den;
        told.parameters = stream.codecpar;
        recorder_.onStreams({told});
        const std::unique_ptr<AVPacket, Freer> packet(av_packet_alloc());
        for (; av_read_frame(file.get(), packet.get()) >= 0; av_packet_unref(packet.get())) {
            Packet given;
            given.track = 0;
            given.packet = packet.get();
            recorder_.onPacket(given);
        }
        recorder_.onEnd();
        recorder_.stop();
    }
    void expectSound(const std::string& from, const std::string& recorded) {
        EXPECT_EQ(std::system(("test -z \"$(ffmpeg -v error -nostdin -i " + recorded + " -f null - 2>&1)\"").c_str()),
                  0)
            << recorded;
        EXPECT_EQ(readVideo(recorded).pictures.size(), 10U) << recorded;
        EXPECT_TRUE(readVideo(recorded).pictures == readVideo(from).pictures) << recorded << ": other pictures";
    }

    TempFolder folder_;
    Outcome told_;
    Recorder recorder_{&told_};
    Parameters video_;
    Parameters sound_;
    int64_t time_ = 0;
};

TEST_F(HostileRecording, IsRefusedWhereTheCountsOfItsSetsHaveNoEnd) {
    const std::pair<AVCodecID, Bytes> broken[] = {
        {AV_CODEC_ID_H264, h264Set(kCountedFor) + h264Frame()},
        {AV_CODEC_ID_HEVC, hevcSet(64, 1) + hevcFrame()},
        {AV_CODEC_ID_AV1, av1Sequence(1)},
    };
    for (const auto& [codec, bytes] : broken) {
        for (const std::string ending : {"mp4", "mov", "mkv"}) {
            if (codec == AV_CODEC_ID_AV1 && ending == "mov") {
                continue;  // which doesn't hold it
            }
            LogCapture log(1);
            told_.failures.clear();
            const std::string file = path(std::to_string(codec) + "." + ending);
            ASSERT_TRUE(recorder_.start(file));
            tell(codec, bytes);
            give(bytes);
            give(bytes, /*isKeyFrame=*/false);
            const auto from = std::chrono::steady_clock::now();
            recorder_.stop();
            EXPECT_LT(std::chrono::steady_clock::now() - from, std::chrono::seconds(5)) << file;
            const std::string why = file + ": the parameter sets of its pictures are broken";
            EXPECT_THAT(told_.failures, ElementsAre(why));
            EXPECT_EQ(log.count(", the recording has ended: the parameter sets of its pictures are broken\n"), 1);
            EXPECT_FALSE(std::filesystem::exists(file));
        }
    }
    EXPECT_THAT(told_.ended, IsEmpty());
}

// MP4 looks for them in the first packet then.
TEST_F(HostileRecording, IsRefusedWhereOnlyThePicturesTellOfIt) {
    const std::pair<AVCodecID, Bytes> broken[] = {
        {AV_CODEC_ID_H264, h264Set(kCountedFor) + h264Frame()},
        {AV_CODEC_ID_HEVC, hevcSet(64, 1) + hevcFrame()},
        {AV_CODEC_ID_HEVC, hevcSet(64, 1)},
    };
    for (const auto& [codec, bytes] : broken) {
        LogCapture log(1);
        told_.failures.clear();
        ASSERT_TRUE(recorder_.start(path("none.mp4")));
        tell(codec, {});
        give({});
        give(bytes);
        recorder_.stop();
        EXPECT_EQ(told_.failures.size(), 1U) << codec;
    }
}

TEST_F(HostileRecording, IsRecordedWithTheSetsThatAreNotBroken) {
    const std::string source = makeHevc("hevc.ts");
    const std::string h264 = make("h264.ts", "-c:v libx264 -preset ultrafast -g 5");
    const std::pair<std::string, Bytes> sources[] = {{source, hevcSet(64, 1) + hevcFrame()},
                                                     {h264, h264Set(kCountedFor) + h264Frame()}};
    for (const auto& [from, broken] : sources) {
        for (const std::string ending : {".mp4", ".mkv"}) {
            const std::string file = from + ending;
            record(from, file, &broken);
            EXPECT_THAT(told_.failures, IsEmpty());
            expectSound(from, file);
        }
    }
    EXPECT_EQ(told_.ended.size(), 4U);
}

TEST_F(HostileRecording, GoesOnInTheFileWhereLaterSetsAreBroken) {
    const auto frames = readVideo(makeHevc("hevc.ts")).frames;
    ASSERT_EQ(frames.size(), 10U);
    for (const std::string ending : {"mp4", "mkv"}) {
        told_.ended.clear();
        const std::string file = path("later." + ending);
        ASSERT_TRUE(recorder_.start(file));
        tell(AV_CODEC_ID_HEVC, configurationOf(path("hevc.ts")));
        for (const auto& frame : frames) {
            give({frame.bytes.begin(), frame.bytes.end()}, frame.keyFrame);
        }
        give(hevcFrame() + hevcSet(64, 1));
        recorder_.stop();
        EXPECT_THAT(told_.failures, IsEmpty());
        EXPECT_THAT(told_.ended, ElementsAre(file));
        EXPECT_EQ(readVideo(file).frames.size(), 11U);
        EXPECT_GE(readVideo(file).pictures.size(), 10U);
    }
}

TEST_F(HostileRecording, IsForgottenWhereTheSetsAreAsAnEncoderWritesThem) {
    const std::string sources[] = {
        makeHevc("one.ts"),
        makeHevc("two.mp4"),
        makeHevc("three.ts", ":temporal-layers=3:bframes=4:b-pyramid=1:scaling-list=default"),
        make("four.ts", "-c:v libx264 -preset ultrafast -g 5"),
        make("five.mp4", "-c:v libx264 -preset medium -x264-params cqm=jvt"),
        make("six.ivf", "-c:v libaom-av1 -cpu-used 8 -g 5"),
    };
    for (const auto& source : sources) {
        for (const std::string ending : {".mp4", ".mkv"}) {
            const std::string file = source + ending;
            record(source, file);
            expectSound(source, file);
            const bool isHevc = readVideo(source).codecId == AV_CODEC_ID_HEVC;
            const std::string tag = isHevc && ending == ".mp4" ? " -tag:v hvc1 " : " ";
            runFFmpeg("-i " + source + " -c copy" + tag + source + ".copy" + ending);
            EXPECT_EQ(configurationOf(file), configurationOf(source + ".copy" + ending)) << file;
        }
    }
    EXPECT_THAT(told_.failures, IsEmpty());
}

// Pictures wait for the sound's time, and a fragment for a second.
TEST_F(HostileRecording, StaysInBoundsWhereTimesStandStill) {
    for (const std::string ending : {"mp4", "mkv", "ts"}) {
        const std::string file = path("still." + ending);
        ASSERT_TRUE(recorder_.start(file));
        tell(AV_CODEC_ID_MPEG4, {}, /*withSound=*/true);
        for (int i = 0; i < 40; ++i) {
            give(Bytes(1 << 20, 0xAA), i == 0, /*ticks=*/0);
        }
        const auto isWritten = [&] {
            return std::filesystem::exists(file) && std::filesystem::file_size(file) >= 16 << 20;
        };
        for (int i = 0; i < 1000 && !isWritten(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        EXPECT_TRUE(isWritten()) << file;
        recorder_.stop();
        EXPECT_THAT(told_.failures, IsEmpty());
        EXPECT_GE(std::filesystem::file_size(file), 40 << 20);
        std::filesystem::remove(file);
    }
}

// libavformat ends the process where two packets of a fragment are too far from each other.
TEST_F(HostileRecording, GoesOnWhereTimesAreFarFromEachOther) {
    constexpr int64_t kFar = std::numeric_limits<int64_t>::max();
    for (const std::string ending : {"mp4", "mov", "mkv", "ts"}) {
        const std::string file = path("far." + ending);
        ASSERT_TRUE(recorder_.start(file));
        tell(AV_CODEC_ID_MPEG4, {});
        for (const int64_t time :
             {int64_t{0}, int64_t{1} << 32, kFar / 2, kFar - 1, -kFar, -kFar / 2, int64_t{90'000}}) {
            time_ = time;
            give(Bytes(1000, 0xAA), /*isKeyFrame=*/true);
            give(Bytes(1000, 0xAA), /*isKeyFrame=*/false);
        }
        recorder_.stop();
        EXPECT_THAT(told_.failures, IsEmpty()) << file;
        EXPECT_GE(std::filesystem::file_size(file), 14 * 1000) << file;
    }
}

}  // namespace
}  // namespace kelp::test
