#include <gmock/gmock.h>

#include "decode/audio_frame_info.h"
#include "decode/video_frame_info.h"
#include "playtask/play_task_peer.h"
#include "support/fake_time.h"
#include "support/log_capture.h"
#include "support/private_member.h"

// Steps in a pause: when they may be made, how they seek, and how playback goes on behind them. The stages here don't
// run.

namespace kelp::test {

using Steps = FrameSteps BasePlayThread::*;
Steps privateMember(PrivateMember<struct StepsTag, Steps>);
template struct ExposeMember<struct StepsTag, &BasePlayThread::steps_>;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class PlayTaskSteps : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset();
        begin();
    }

    // A playback, paused.
    void begin() {
        under.peer.setSeekable(true, 60000);
        under.peer.set(std::make_shared<VideoPlayThread>(false, nullptr));
        under.peer.set(std::make_shared<AudioPlayThread>());
        under.task->pause();
    }
    // Pictures from 1000 to 1400 ms, and the sound of 200 ms later.
    void fill() {
        for (int64_t pts = 1000; pts <= 1400; pts += 40) {
            const auto picture = std::make_shared<VideoFrameInfo>();
            picture->pts = pts;
            under.peer.videoPlay()->fillFrame(picture);
            const auto sound = std::make_shared<AudioFrameInfo>();
            sound->pts = pts + 200;
            under.peer.audioPlay()->fillFrame(sound);
        }
    }

    // As the play thread does where the picture at `pts` is shown.
    FrameSteps& leave(int64_t pts) {
        BasePlayThread& thread = VideoPlayThreadPeer::base(*under.peer.videoPlay());
        FrameSteps& steps = thread.*privateMember(PrivateMember<StepsTag, Steps>{});
        steps.leave(pts);
        return steps;
    }
    void awaitStepSeek(int64_t pts) {
        FrameSteps::Queue none;
        leave(pts).take(none, /*isLast=*/false);
    }
    // The picture at `pts` is shown, and the seek for a step before it is on its way.
    void beginStepBack(int64_t pts) {
        VideoPlayThreadPeer::setCurrentPts(*under.peer.videoPlay(), pts);
        ASSERT_TRUE(under.task->stepFrame(-1));
        awaitStepSeek(pts);
        under.fromVideoPlay().onStepSeek(static_cast<int>(pts) - 1);
        under.drainWorker();
    }
    void endSeekAt(int timeMs) {
        under.fromParser().onSeekStart(timeMs);
        under.fromParser().onFirstPakcet(packet());
        under.fromVideoDecode().onVideoDecodeSeek(timeMs, true);
        under.fromAudioDecode().onAudioDecodeSeek(timeMs, true);
        under.fromVideoPlay().onFirstVideoFrame(timeMs);
        under.fromAudioPlay().onFirstAudioFrame(timeMs);
    }
    static std::shared_ptr<MediaPacket> packet() {
        auto made = std::make_shared<VideoPacket>();
        made->timeBaseNum = 1;
        made->timeBaseDen = 1000;
        return made;
    }

    TaskUnderTest under;
};

TEST_F(PlayTaskSteps, AreRefusedWithoutAPause) {
    under.task->resume();
    LogCapture log(2);
    EXPECT_FALSE(under.task->stepFrame(1));
    under.task->pause();
    EXPECT_TRUE(under.task->stepFrame(1));
    under.peer.setSeekable(false, 60000);
    EXPECT_TRUE(under.task->stepFrame(1));
    EXPECT_FALSE(under.task->stepFrame(-1));
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]: stepFrame, no picture is paused\n",
                                          "[PlayTask]: stepFrame, the source can't go back\n"));
}

TEST_F(PlayTaskSteps, SeekExactlyAndUntold) {
    beginStepBack(8000);
    EXPECT_EQ(under.peer.seekingTimeMs(), 7999);
    EXPECT_TRUE(under.fromVideoPlay().isSeekUnderWay());
    EXPECT_EQ(under.task->getCurrentTime(), 8000) << "the picture that is shown";
    endSeekAt(7999);
    EXPECT_FALSE(under.fromVideoPlay().isSeekUnderWay());
    EXPECT_THAT(under.events(), IsEmpty());
    under.task->seek(500);
    endSeekAt(500);
    EXPECT_EQ(under.events().size(), 3U) << "of a seek";
}

TEST_F(PlayTaskSteps, GiveWayToASeek) {
    under.task->seek(500);
    ASSERT_TRUE(under.task->stepFrame(-1));
    awaitStepSeek(8000);
    under.fromVideoPlay().onStepSeek(7999);
    under.drainWorker();
    EXPECT_EQ(under.peer.seekingTimeMs(), 500);
    EXPECT_EQ(under.peer.seeksWaiting(), 0);
    EXPECT_FALSE(under.peer.videoPlay()->isStepAwaited(7999));
}

// Steps back move the picture to where the sound has gone by.
TEST_F(PlayTaskSteps, TakeNoSoundAwayFromASeekBehindThem) {
    fill();
    ASSERT_TRUE(under.task->stepFrame(-1));
    under.task->seek(1100);
    EXPECT_EQ(under.peer.seekingTimeMs(), 1100) << "it goes to the demuxer";
    EXPECT_EQ(under.peer.audioPlay()->getFrameQueueSize(), 11);
    endSeekAt(1100);
    fill();
    under.task->seek(1100);
    EXPECT_EQ(under.peer.seekingTimeMs(), -1) << "without a step the picture decides";
    under.peer.set(std::make_shared<VideoPlayThread>(false, nullptr));
    under.peer.set(std::make_shared<AudioPlayThread>());
    under.peer.videoPlay()->pause(true);
    fill();
    ASSERT_TRUE(under.task->stepFrame(1));
    under.task->seek(1300);
    EXPECT_EQ(under.peer.seekingTimeMs(), -1) << "the sound is there";
    EXPECT_GT(under.peer.audioPlay()->getFrameQueueSize(), 0);
}

TEST_F(PlayTaskSteps, LeaveTheSoundThatIsQueuedBehindThem) {
    under.peer.set(std::make_shared<AudioDecodeThread>());
    for (int64_t pts = 1000; pts <= 1800; pts += 40) {
        const auto sound = std::make_shared<AudioFrameInfo>();
        sound->pts = pts;
        under.peer.audioPlay()->fillFrame(sound);
    }
    under.fromVideoPlay().onStepped(1600);
    EXPECT_EQ(under.peer.audioPlay()->getFrameQueueSize(), 21);
}

TEST_F(PlayTaskSteps, LeaveNothingToTheNextPlayback) {
    under.peer.set(std::make_shared<AudioDecodeThread>());
    fill();
    ASSERT_TRUE(under.task->stepFrame(1));
    under.fromVideoPlay().onStepped(1700);
    under.task->stop();
    begin();
    under.fromAudioPlay().onFirstAudioFrame(1000);
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_AUDIO_FRAME).size(), 1U);
    leave(1000);
    EXPECT_TRUE(under.task->resume());
    EXPECT_EQ(under.peer.seekingTimeMs(), -1) << "nothing is behind the picture";
    EXPECT_FALSE(under.peer.videoPlay()->isPaused());
    fill();
    under.task->seek(1100);
    EXPECT_EQ(under.peer.seekingTimeMs(), -1) << "the picture decides";
}

TEST_F(PlayTaskSteps, AreForgottenWithASeek) {
    ASSERT_TRUE(under.task->stepFrame(-1));
    awaitStepSeek(8000);
    under.task->seek(500);
    EXPECT_FALSE(under.peer.videoPlay()->isStepAwaited(7999));
}

TEST_F(PlayTaskSteps, PlayOnWhenAllIsAtTheirPicture) {
    beginStepBack(8000);
    endSeekAt(7999);
    VideoPlayThreadPeer::setCurrentPts(*under.peer.videoPlay(), 7960);
    EXPECT_TRUE(under.task->resume());
    EXPECT_EQ(under.peer.seekingTimeMs(), 7960);
    EXPECT_TRUE(under.peer.videoPlay()->isPaused());
    EXPECT_FALSE(under.task->stepFrame(1));
    endSeekAt(7960);
    EXPECT_FALSE(under.peer.videoPlay()->isPaused());
    EXPECT_THAT(under.events(), IsEmpty());
}

TEST_F(PlayTaskSteps, PlayOnBehindASeekOfTheirOwn) {
    beginStepBack(8000);
    EXPECT_TRUE(under.task->resume());
    endSeekAt(7999);
    EXPECT_TRUE(under.peer.videoPlay()->isPaused());
    under.drainWorker();
    EXPECT_EQ(under.peer.seekingTimeMs(), 8000);
    endSeekAt(8000);
    EXPECT_FALSE(under.peer.videoPlay()->isPaused());
    EXPECT_THAT(under.events(), IsEmpty());
}

TEST_F(PlayTaskSteps, PlayOnWhereASeekOfTheHostsGoes) {
    beginStepBack(8000);
    under.task->seek(500);
    ASSERT_TRUE(under.task->stepFrame(1));
    EXPECT_TRUE(under.task->resume());
    EXPECT_FALSE(under.peer.videoPlay()->isPaused());
    endSeekAt(7999);
    under.drainWorker();
    EXPECT_EQ(under.peer.seekingTimeMs(), 500);
    const size_t before = under.events().size();  // the sound of the step's seek may have come behind its end
    endSeekAt(500);
    EXPECT_EQ(under.events().size() - before, 3U) << "of that seek";
}

TEST_F(PlayTaskSteps, LeaveASeekItsEvents) {
    under.task->seek(500);
    ASSERT_TRUE(under.task->stepFrame(1));
    endSeekAt(500);
    EXPECT_EQ(under.events().size(), 3U);
}

TEST_F(PlayTaskSteps, PlayOnAsBeforeWhereNothingWasShown) {
    ASSERT_TRUE(under.task->stepFrame(1));
    EXPECT_TRUE(under.task->resume());
    EXPECT_EQ(under.peer.seekingTimeMs(), -1);
    EXPECT_FALSE(under.peer.videoPlay()->isPaused());
}

TEST_F(PlayTaskSteps, StayPausedIfThatWasAskedForLast) {
    beginStepBack(8000);
    endSeekAt(7999);
    under.task->resume();
    under.task->pause();
    endSeekAt(7999);
    EXPECT_TRUE(under.peer.videoPlay()->isPaused());
}

TEST_F(PlayTaskSteps, PlayOnWhereNoPictureComes) {
    beginStepBack(8000);
    endSeekAt(7999);
    under.task->resume();
    under.fromParser().onSeekStart(7999);
    under.fromVideoDecode().onVideoDecodeSeek(7999, true);
    under.fromParser().onPlaybackCompleted();
    EXPECT_FALSE(under.peer.videoPlay()->isPaused());
}

}  // namespace
}  // namespace kelp::test
