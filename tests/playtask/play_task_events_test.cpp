#include <gmock/gmock.h>

#include <cstring>

#include "decode/audio_frame_info.h"
#include "decode/video_frame_info.h"
#include "kelp_player/frame_sink.h"
#include "playtask/play_task_peer.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

// What the task does with what the stages report. The stages here don't run unless a test says so.

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
// Takes what a running video play thread shows.
class RecordingSink : public ExternFrameSink {
public:
    struct Shown {
        int pixFormat;
        int64_t pts;
        std::string bytes;
        int64_t frameTag;
    };

    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int, int64_t frameTag) override {
        std::lock_guard lock(mutex_);
        std::string bytes(reinterpret_cast<char*>(data[0]), static_cast<size_t>(linesize[0]));
        if (shown_.empty() || shown_.back().bytes != bytes) {
            shown_.push_back({pixFormat, pts, std::move(bytes), frameTag});
        }
        return true;
    }
    std::vector<Shown> shown() {
        std::lock_guard lock(mutex_);
        return shown_;
    }

private:
    std::mutex mutex_;
    std::vector<Shown> shown_;  // guarded by mutex_; repaints left out
};
#pragma GCC diagnostic pop

class PlayTaskEvents : public testing::Test {
protected:
    void SetUp() override { FakeTime::reset(); }

    template <class Packet>
    static std::shared_ptr<Packet> packet(int64_t pts, int64_t num = 1, int64_t den = 1000) {
        auto made = std::make_shared<Packet>();
        made->pts = pts;
        made->timeBaseNum = num;
        made->timeBaseDen = den;
        return made;
    }

    static std::shared_ptr<VideoPacket> picturePacket(int64_t pts, const std::string& bytes) {
        auto made = packet<VideoPacket>(pts, 1, 90000);
        made->data = new unsigned char[bytes.size()];
        made->size = static_cast<int>(bytes.size());
        std::memcpy(made->data, bytes.data(), bytes.size());
        return made;
    }

    static std::shared_ptr<VideoFrameInfo> picture(int width, int height, int rotate, int64_t pts = 0) {
        auto made = std::make_shared<VideoFrameInfo>();
        made->width = width;
        made->height = height;
        made->rotate = rotate;
        made->pts = pts;
        return made;
    }

    void setVideoCodec(VideoCodecType type) {
        auto info = std::make_shared<CodecInfo>();
        info->videoCodecType = type;
        under.peer.set(info);
    }

    std::shared_ptr<VideoPlayThread> addVideoPlay() {
        auto made = std::make_shared<VideoPlayThread>(false, nullptr);
        under.peer.set(made);
        return made;
    }
    std::shared_ptr<AudioPlayThread> addAudioPlay() {
        auto made = std::make_shared<AudioPlayThread>();
        under.peer.set(made);
        return made;
    }

    RecordingSink sink;  // outlives the playback
    TaskUnderTest under;
};

TEST_F(PlayTaskEvents, DropWhatHasNoTarget) {
    EXPECT_EQ(under.fromParser().onAudioPakcet(packet<AudioPacket>(0)), 0);
    EXPECT_EQ(under.fromParser().onVideoPacket(packet<VideoPacket>(0)), 0);
    EXPECT_EQ(under.fromParser().onAudioPacketQueueSize(), 0);
    EXPECT_EQ(under.fromParser().onVideoPacketQueueSize(), 0);
    EXPECT_EQ(under.fromParser().onAudioFrameQueueSize(), 0);
    EXPECT_EQ(under.fromParser().onVideoFrameQueueSize(), 0);
    EXPECT_EQ(under.fromAudioDecode().onSpeedUpSamples(), 0);
    under.fromAudioDecode().onAudioDecoded(std::make_shared<AudioFrameInfo>());
    under.fromVideoDecode().onVideoDecoded(picture(0, 0, 0));
    under.fromParser().onSeekStart(5);
    under.fromParser().onSeekCompleted();
    under.fromVideoDecode().onVideoDecodeSeek(5, true);
    under.fromAudioDecode().onAudioDecodeSeek(5, true);
    EXPECT_THAT(under.events(), IsEmpty());
}

// A picture that is dropped gives its buffer back.
TEST_F(PlayTaskEvents, ReturnTheBufferOfADroppedPicture) {
    auto frame = picture(64, 48, 0);
    frame->buffer = under.fromVideoDecode().allocPixBuffer(100);
    frame->freeBuffer = [&](std::shared_ptr<FrameBuffer> buffer) {
        under.fromVideoDecode().freePixBuffer(std::move(buffer));
    };
    under.fromVideoDecode().onVideoDecoded(std::move(frame));
    EXPECT_THAT(under.peer.pixPool(), ElementsAre(100));
}

TEST_F(PlayTaskEvents, QueuePacketsForTheDecodeThreads) {
    under.peer.set(std::make_shared<VideoDecodeThread>());
    under.peer.set(std::make_shared<AudioDecodeThread>());
    EXPECT_EQ(under.fromParser().onAudioPakcet(packet<AudioPacket>(0)), 1);
    EXPECT_EQ(under.fromParser().onAudioPakcet(packet<AudioPacket>(1)), 2);
    EXPECT_EQ(under.fromParser().onVideoPacket(packet<VideoPacket>(0)), 1);
    EXPECT_EQ(under.fromParser().onAudioPacketQueueSize(), 2);
    EXPECT_EQ(under.fromParser().onVideoPacketQueueSize(), 1);

    // End packets and flush packets take the same way.
    auto flush = std::make_shared<VideoPacket>();
    flush->flush = true;
    EXPECT_EQ(under.fromParser().onVideoPacket(flush), 2);
    EXPECT_EQ(under.fromParser().onVideoPacket(std::make_shared<VideoPacket>()), 3);

    // And so they do with every codec but the one whose packets are pictures.
    setVideoCodec(VIDEO_CODEC_MJPEG);
    EXPECT_EQ(under.fromParser().onVideoPacket(packet<VideoPacket>(1)), 4);
}

TEST_F(PlayTaskEvents, QueueFramesForThePlayThreads) {
    addVideoPlay();
    addAudioPlay();
    under.fromVideoDecode().onVideoDecoded(picture(0, 0, 0, 0));
    under.fromVideoDecode().onVideoDecoded(picture(0, 0, 0, 40));
    under.fromAudioDecode().onAudioDecoded(std::make_shared<AudioFrameInfo>());
    EXPECT_EQ(under.fromVideoDecode().onVideoFrameQueueSize(), 2);
    EXPECT_EQ(under.fromParser().onVideoFrameQueueSize(), 2);
    EXPECT_EQ(under.fromAudioDecode().onAudioFrameQueueSize(), 1);
    EXPECT_EQ(under.fromParser().onAudioFrameQueueSize(), 1);
}

TEST_F(PlayTaskEvents, AskTheDecoderForTheOppositeOfTheLead) {
    const auto audio = addAudioPlay();
    AudioPlayThreadPeer::setUnSyncSamples(*audio, 480);
    EXPECT_EQ(under.fromAudioDecode().onSpeedUpSamples(), -480);
    AudioPlayThreadPeer::setUnSyncSamples(*audio, -7);
    EXPECT_EQ(under.fromAudioDecode().onSpeedUpSamples(), 7);
    AudioPlayThreadPeer::setUnSyncSamples(*audio, std::numeric_limits<int>::min());
    EXPECT_EQ(under.fromAudioDecode().onSpeedUpSamples(), std::numeric_limits<int>::min());
}

TEST_F(PlayTaskEvents, TellTheFirstPacketsTime) {
    LogCapture log(3);
    under.fromParser().onFirstPakcet(packet<VideoPacket>(90000, 1, 90000));
    under.fromParser().onFirstPakcet(packet<AudioPacket>(-48000, 1, 48000));
    under.fromParser().onFirstPakcet(packet<AudioPacket>(3, 1001, 30000));
    EXPECT_THAT(under.events(),
                ElementsAre(Event{EVENT_FIRST_PACKET, 1000, 0, 0}, Event{EVENT_FIRST_PACKET, -1000, 0, 0},
                            Event{EVENT_FIRST_PACKET, 100, 0, 0}));
    EXPECT_EQ(linesOf(log)[0],
              "[PlayTask]: onFirstPakcet, packet.info: " + packet<VideoPacket>(90000, 1, 90000)->toString() + "\n");
}

TEST_F(PlayTaskEvents, CutTheFirstPacketsTimeToThirtyTwoBits) {
    under.fromParser().onFirstPakcet(packet<VideoPacket>(0x1'0000'0005, 1, 1000));
    // A damaged file can hold any time.
    under.fromParser().onFirstPakcet(packet<VideoPacket>(std::numeric_limits<int64_t>::max(), 1, 1));
    EXPECT_EQ(under.events()[0], (Event{EVENT_FIRST_PACKET, 5, 0, 0}));
    EXPECT_EQ(under.events().size(), 2u);
}

TEST_F(PlayTaskEvents, HaveNoFirstPacketWithoutATimeBase) {
    LogCapture log;
    under.fromParser().onFirstPakcet(packet<VideoPacket>(5, 1, 0));
    under.fromParser().onFirstPakcet(packet<VideoPacket>(5, 1, -1));
    EXPECT_THAT(under.events(), IsEmpty());
    EXPECT_THAT(linesOf(log), IsEmpty());
}

TEST_F(PlayTaskEvents, TellASizeThatChanged) {
    under.fromVideoDecode().onVideoDecoded(picture(64, 48, 0));
    under.fromVideoDecode().onVideoDecoded(picture(64, 48, 0));
    under.fromVideoDecode().onVideoDecoded(picture(64, 48, 90));
    under.fromVideoDecode().onVideoDecoded(picture(32, 48, 90));
    under.fromVideoDecode().onVideoDecoded(picture(32, 24, 90));
    under.fromVideoDecode().onVideoDecoded(picture(0, 24, 0));
    under.fromVideoDecode().onVideoDecoded(picture(32, 0, 0));
    under.fromVideoDecode().onVideoDecoded(picture(-1, 24, 0));
    EXPECT_THAT(under.events(),
                ElementsAre(Event{EVENT_VIDEO_SIZE_UPDATED, 64, 48, 0}, Event{EVENT_VIDEO_SIZE_UPDATED, 64, 48, 90},
                            Event{EVENT_VIDEO_SIZE_UPDATED, 32, 48, 90}, Event{EVENT_VIDEO_SIZE_UPDATED, 32, 24, 90}));
    EXPECT_EQ(under.task->getPlayDetailInfo().width, 32);
    EXPECT_EQ(under.task->getPlayDetailInfo().height, 24);
    EXPECT_EQ(under.task->getPlayDetailInfo().rotate, 90);
    under.task->stop();
    EXPECT_EQ(under.task->getPlayDetailInfo().rotate, 0);
}

TEST_F(PlayTaskEvents, ReportFailures) {
    under.fromParser().onPlayFailed();
    under.fromVideoDecode().onVideoDecodeFailed();
    under.task->enableHwDecoder(false, HW_DECODE_ALL);
    under.fromVideoDecode().onVideoDecodeFailed();
    EXPECT_THAT(under.events(),
                ElementsAre(Event{EVENT_FAILED, 1, 1, 0}, Event{EVENT_FAILED, 2, 1, 0}, Event{EVENT_FAILED, 2, 0, 0}));
}

// The queues run empty at a stop as well.
TEST_F(PlayTaskEvents, TellNoEndOfTheSourceThatIsTheStops) {
    under.peer.parser()->prepareStop();
    under.fromParser().onPlaybackCompleted();
    under.fromParser().onPlayFailed();
    EXPECT_THAT(under.events(), IsEmpty());
}

TEST_F(PlayTaskEvents, CallAnEndWithoutAnyFrameAFailureWhereAllCodecsArePlayed) {
    under.fromParser().onPlaybackCompleted();
    under.peer.setLoadOptions({.allCodecs = true});
    LogCapture log(1);
    under.fromParser().onPlaybackCompleted();
    EXPECT_THAT(under.events(), ElementsAre(Event{EVENT_COMPLETED, 0, 0, 0}, Event{EVENT_FAILED, 1, 1, 0}));
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]:  can't be played: nothing of it could be decoded\n"));
    under.fromAudioDecode().onAudioDecoded(std::make_shared<AudioFrameInfo>());
    under.fromParser().onPlaybackCompleted();
    EXPECT_EQ(under.events().back(), (Event{EVENT_COMPLETED, 0, 0, 0}));
}

TEST_F(PlayTaskEvents, SetTheClockByTheFirstPicture) {
    addVideoPlay();
    const auto clock = std::make_shared<MasterClock>();
    under.peer.set(clock);
    FakeTime::advanceMs(100);
    under.peer.setSeeking(true, 5000);
    LogCapture log;
    under.fromVideoPlay().onFirstVideoFrame(5010);
    EXPECT_EQ(clock->getSyncPts(), 5010);
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_THAT(under.events(), ElementsAre(Event{EVENT_FIRST_VIDEO_FRAME, 5010, 0, 0}));
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]: onFirstVideoFrame, framePtsMs:5010\n"));
}

TEST_F(PlayTaskEvents, LeaveClockAndSeekToVideoWhereThereIsAny) {
    addVideoPlay();
    addAudioPlay();
    const auto clock = std::make_shared<MasterClock>();
    under.peer.set(clock);
    under.peer.setSeeking(true, 5000);
    LogCapture log;
    under.fromAudioPlay().onFirstAudioFrame(5010);
    EXPECT_EQ(clock->getSyncPts(), 0);
    EXPECT_TRUE(under.peer.isSeeking());
    EXPECT_THAT(under.events(), ElementsAre(Event{EVENT_FIRST_AUDIO_FRAME, 5010, 0, 0}));
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]: onFirstAudioFrame, framePtsMs:5010\n"));
}

TEST_F(PlayTaskEvents, SetTheClockByTheFirstSoundWithoutVideo) {
    addAudioPlay();
    const auto clock = std::make_shared<MasterClock>();
    under.peer.set(clock);
    under.peer.setSeeking(true, 5000);
    under.fromAudioPlay().onFirstAudioFrame(0x1'0000'0002);
    EXPECT_EQ(clock->getSyncPts(), 0x1'0000'0002);
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_THAT(under.events(), ElementsAre(Event{EVENT_FIRST_AUDIO_FRAME, 2, 0, 0}));
}

TEST_F(PlayTaskEvents, CorrectTheDurationAtTheEnd) {
    const auto video = addVideoPlay();
    const auto audio = addAudioPlay();
    under.peer.setSeekable(true, 2000);
    LogCapture log;
    under.fromParser().onFileEnd(1960, 2010);
    EXPECT_THAT(under.events(), ElementsAre(Event{EVENT_DURATION_UPDATED, 2010, 0, 0}));
    EXPECT_EQ(under.task->getDuration(), 2010);
    EXPECT_EQ(VideoPlayThreadPeer::maxPts(*video), 1960);
    EXPECT_EQ(AudioPlayThreadPeer::maxPts(*audio), 2010);
    EXPECT_THAT(linesOf(log),
                ElementsAre("[PlayTask]: onFileEnd, isSeeking_:0, seekQueue:0, max video pts:1960, audio pts:2010\n"));

    // Downwards too, and not when nothing changes.
    under.fromParser().onFileEnd(1960, 2010);
    EXPECT_EQ(under.events().size(), 1u);
    under.fromParser().onFileEnd(1500, -1);
    EXPECT_EQ(under.events().back(), (Event{EVENT_DURATION_UPDATED, 1500, 0, 0}));
    EXPECT_EQ(under.events().size(), 2u);
}

TEST_F(PlayTaskEvents, KeepTheDurationIfNothingWasRead) {
    under.peer.setSeekable(true, 2000);
    under.fromParser().onFileEnd(-1, -1);
    under.fromParser().onFileEnd(0, 0);
    EXPECT_THAT(under.events(), IsEmpty());
    EXPECT_EQ(under.task->getDuration(), 2000);
}

// A host that asks in the event's wake gets the corrected value.
TEST(PlayTaskEventOrder, KnowsTheDurationWhenItTellsOfIt) {
    const auto task = std::make_shared<PlayTask>();
    int seen = 0;
    task->init([&](EventType, int, int, int) { seen = task->getDuration(); }, nullptr);
    StreamParserObserver& observer = *task;
    observer.onFileEnd(1234, 0);
    EXPECT_EQ(seen, 1234);
}

TEST_F(PlayTaskEvents, GiveUpWaitingSeeksAtTheEnd) {
    under.peer.setSeekable(true, 2000);
    under.peer.setSeeking(true, 1900);
    EXPECT_TRUE(under.task->seek(100));
    EXPECT_EQ(under.peer.seeksWaiting(), 1);
    EXPECT_EQ(under.peer.newestSeek(), 100);
    under.fromParser().onPlaybackCompleted();
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_EQ(under.peer.seeksWaiting(), 0);
    EXPECT_THAT(under.events(), ElementsAre(Event{EVENT_COMPLETED, 0, 0, 0}));
}

TEST_F(PlayTaskEvents, EndASeekThatNoPictureWillEnd) {
    under.peer.setSeekable(true, 2000);
    under.peer.setSeeking(true, 1900);
    EXPECT_TRUE(under.task->seek(100));
    LogCapture log;
    under.fromVideoDecode().onVideoDecodeNoMoreFrame();
    EXPECT_FALSE(under.peer.isSeeking());
    // What waits goes on waiting, for the next first frame.
    EXPECT_EQ(under.peer.seeksWaiting(), 1);
    EXPECT_EQ(under.peer.newestSeek(), 100);
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]: onVideoDecodeNoMoreFrame\n"));
    EXPECT_THAT(under.events(), IsEmpty());
}

class PlayTaskPassThrough : public PlayTaskEvents {
protected:
    void SetUp() override {
        PlayTaskEvents::SetUp();
        setVideoCodec(VIDEO_CODEC_270);
        under.peer.set(std::make_shared<VideoDecodeThread>());
    }
};

TEST_F(PlayTaskPassThrough, ShowsPacketsThatArePictures) {
    const auto video = addVideoPlay();
    video->init(nullptr);
    video->addWindow(WINDOW_TYPE_EXTERN, &sink, 64, 48);
    ASSERT_TRUE(video->start(25));
    EXPECT_EQ(under.fromParser().onVideoPacket(picturePacket(9000, "first")), 0);
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return sink.shown().size() == 1; }));
    EXPECT_EQ(under.fromParser().onVideoPacket(picturePacket(12600, "second one")), 0);
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return sink.shown().size() == 2; }));

    const auto shown = sink.shown();
    EXPECT_EQ(shown[0].pixFormat, PIX_FMT_PACKET);
    EXPECT_EQ(shown[0].pts, 100);
    EXPECT_EQ(shown[0].bytes, "first");
    EXPECT_EQ(shown[0].frameTag, 9000);
    EXPECT_EQ(shown[1].pts, 140);
    EXPECT_EQ(shown[1].bytes, "second one");
    EXPECT_EQ(shown[1].frameTag, 12600);
    EXPECT_EQ(under.peer.videoDecode()->getQueuePacketSize(), 0);
    // The size isn't known, so none is told.
    EXPECT_THAT(under.events(), IsEmpty());
}

TEST_F(PlayTaskPassThrough, KeepsTheTicksWithoutATimeBase) {
    const auto video = addVideoPlay();
    video->init(nullptr);
    video->addWindow(WINDOW_TYPE_EXTERN, &sink, 64, 48);
    ASSERT_TRUE(video->start(25));
    auto made = picturePacket(77, "x");
    made->timeBaseDen = 0;
    under.fromParser().onVideoPacket(made);
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return sink.shown().size() == 1; }));
    EXPECT_EQ(sink.shown()[0].pts, 77);
}

TEST_F(PlayTaskPassThrough, DropsPacketsWithoutAPicture) {
    addVideoPlay();
    EXPECT_EQ(under.fromParser().onVideoPacket(std::make_shared<VideoPacket>()), 0);
    auto flush = std::make_shared<VideoPacket>();
    flush->flush = true;
    EXPECT_EQ(under.fromParser().onVideoPacket(flush), 0);
    auto empty = picturePacket(0, "x");
    empty->size = 0;
    EXPECT_EQ(under.fromParser().onVideoPacket(empty), 0);
    EXPECT_EQ(under.fromParser().onVideoFrameQueueSize(), 0);
    EXPECT_EQ(under.peer.videoDecode()->getQueuePacketSize(), 0);
}

TEST_F(PlayTaskPassThrough, NeedsAPlayThread) {
    EXPECT_EQ(under.fromParser().onVideoPacket(picturePacket(0, "x")), 0);
    EXPECT_THAT(under.peer.pixPool(), IsEmpty());
}

TEST_F(PlayTaskPassThrough, ReturnsBuffersToThePoolWithoutADecodeThread) {
    const auto video = addVideoPlay();
    under.fromParser().onVideoPacket(picturePacket(0, "abc"));
    EXPECT_EQ(under.fromParser().onVideoFrameQueueSize(), 1);
    under.peer.set(std::shared_ptr<VideoDecodeThread>());
    video->seek(0, /*needFlush=*/true);
    EXPECT_THAT(under.peer.pixPool(), ElementsAre(3));
    // The next one of the same size takes that buffer.
    under.fromParser().onVideoPacket(picturePacket(0, "def"));
    EXPECT_THAT(under.peer.pixPool(), IsEmpty());
}

}  // namespace
}  // namespace kelp::test
