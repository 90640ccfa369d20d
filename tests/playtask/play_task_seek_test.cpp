#include <gmock/gmock.h>

#include <atomic>

#include "decode/audio_frame_info.h"
#include "decode/video_frame_info.h"
#include "playtask/play_task_peer.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

// Where a seek is served from, and what waits for its end. The stages here don't run.

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Answers as a test says and notes what it is asked for.
class ScriptedVideoDecode : public VideoDecodeThread {
public:
    bool checkBuffer(int seekTimeMs) override {
        calls.push_back("check " + std::to_string(seekTimeMs));
        return reached;
    }
    bool clearBuffer(int seekTimeMs) override {
        calls.push_back("clear " + std::to_string(seekTimeMs));
        if (observer) {
            observer->onVideoDecodeSeek(seekTimeMs, false);
        }
        return observer != nullptr;
    }
    void seek(int seekTimeMs) override { calls.push_back("seek " + std::to_string(seekTimeMs)); }
    bool isLeftOut(int64_t timeMs) override { return timeMs < leftOutBeforeMs; }

    bool reached = true;
    int64_t leftOutBeforeMs = 0;
    VideoDecodeThreadObserver* observer = nullptr;  // told of the seek by clearBuffer
    std::vector<std::string> calls;
};

class ScriptedAudioDecode : public AudioDecodeThread {
public:
    bool checkBuffer(int seekTimeMs) override {
        calls.push_back("check " + std::to_string(seekTimeMs));
        return reached;
    }
    bool clearBuffer(int seekTimeMs) override {
        calls.push_back("clear " + std::to_string(seekTimeMs));
        if (observer) {
            observer->onAudioDecodeSeek(seekTimeMs, false);
        }
        return observer != nullptr;
    }
    void seek(int seekTimeMs) override { calls.push_back("seek " + std::to_string(seekTimeMs)); }

    bool reached = true;
    AudioDecodeThreadObserver* observer = nullptr;
    std::vector<std::string> calls;
};

class PlayTaskSeek : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset();
        under.peer.setSeekable(true, 60000);
    }

    template <class Frame>
    static std::shared_ptr<Frame> frame(int64_t pts) {
        auto made = std::make_shared<Frame>();
        made->pts = pts;
        made->duration = 40;
        made->buffer = std::make_shared<FrameBuffer>();
        return made;
    }

    // Play threads with frames 40 ms apart, from `first` to `last`.
    void addVideoPlay(int64_t first, int64_t last) {
        auto made = std::make_shared<VideoPlayThread>(false, nullptr);
        for (int64_t pts = first; pts <= last; pts += 40) {
            made->fillFrame(frame<VideoFrameInfo>(pts));
        }
        under.peer.set(made);
    }
    void addAudioPlay(int64_t first, int64_t last) {
        auto made = std::make_shared<AudioPlayThread>();
        for (int64_t pts = first; pts <= last; pts += 40) {
            made->fillFrame(frame<AudioFrameInfo>(pts));
        }
        under.peer.set(made);
    }
    std::shared_ptr<ScriptedVideoDecode> addVideoDecode() {
        auto made = std::make_shared<ScriptedVideoDecode>();
        made->observer = &under.fromVideoDecode();
        under.peer.set(std::shared_ptr<VideoDecodeThread>(made));
        return made;
    }
    std::shared_ptr<ScriptedAudioDecode> addAudioDecode() {
        auto made = std::make_shared<ScriptedAudioDecode>();
        made->observer = &under.fromAudioDecode();
        under.peer.set(std::shared_ptr<AudioDecodeThread>(made));
        return made;
    }

    int videoFrames() { return under.peer.videoPlay()->getFrameQueueSize(); }
    int audioFrames() { return under.peer.audioPlay()->getFrameQueueSize(); }

    TaskUnderTest under;
};

TEST_F(PlayTaskSeek, IsRefusedWhereTheSourceCant) {
    under.peer.setSeekable(false, 60000);
    LogCapture log(3);
    EXPECT_FALSE(under.task->seek(1000));
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]: seek, seekTimeMs:1000, seekable:0\n"));
    EXPECT_FALSE(under.peer.isSeeking());
}

TEST_F(PlayTaskSeek, StaysInsideTheDuration) {
    LogCapture log;
    EXPECT_TRUE(under.task->seek(-5));
    EXPECT_EQ(under.peer.seekingTimeMs(), 0);
    EXPECT_TRUE(log.has("[PlayTask]: seek, seekTimeMs:-5, seekable:1\n"));
    EXPECT_TRUE(log.has("[StreamParser]: seek to 0 ms\n"));
    under.peer.setSeeking(false, 0);
    EXPECT_TRUE(under.task->seek(60000));
    EXPECT_EQ(under.peer.seekingTimeMs(), 60000);
    under.peer.setSeeking(false, 0);
    EXPECT_TRUE(under.task->seek(70000));
    EXPECT_EQ(under.peer.seekingTimeMs(), 60000);

    // Nothing is known of the end: the time goes on as it is.
    under.peer.setSeeking(false, 0);
    under.peer.setSeekable(true, 0);
    EXPECT_TRUE(under.task->seek(70000000));
    EXPECT_EQ(under.peer.seekingTimeMs(), 70000000);
    EXPECT_TRUE(log.has("[StreamParser]: seek to 70000000 ms\n"));
}

TEST_F(PlayTaskSeek, ServesATargetAmongTheFrames) {
    addVideoPlay(1000, 1200);
    addAudioPlay(1000, 1200);
    const auto videoDecode = addVideoDecode();
    VideoPlayThreadPeer::setCurrentPts(*under.peer.videoPlay(), 960);
    LogCapture log;
    EXPECT_TRUE(under.task->seek(1100));
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_EQ(under.task->getCurrentTime(), 960);
    EXPECT_EQ(videoFrames(), 4);  // 1080, which lasts until 1119, to 1200
    EXPECT_EQ(audioFrames(), 4);
    EXPECT_THAT(videoDecode->calls, IsEmpty());
    EXPECT_FALSE(log.has("[StreamParser]"));
    EXPECT_THAT(under.events(), IsEmpty());
}

TEST_F(PlayTaskSeek, LetsAudioFollowVideoWithoutATest) {
    addVideoPlay(1000, 1200);
    addAudioPlay(2000, 2200);
    EXPECT_TRUE(under.task->seek(1100));
    EXPECT_EQ(videoFrames(), 4);
    EXPECT_EQ(audioFrames(), 0);
    EXPECT_FALSE(under.peer.isSeeking());
}

TEST_F(PlayTaskSeek, AsksVideoAloneWhereThereIsVideo) {
    addVideoPlay(1000, 1200);
    addAudioPlay(2000, 2200);
    EXPECT_TRUE(under.task->seek(2100));
    EXPECT_TRUE(under.peer.isSeeking());
    EXPECT_EQ(audioFrames(), 6);
}

TEST_F(PlayTaskSeek, AsksAudioWhereThereIsNoVideo) {
    addAudioPlay(2000, 2200);
    LogCapture log;
    EXPECT_TRUE(under.task->seek(2100));
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_EQ(audioFrames(), 4);
    EXPECT_FALSE(log.has("[StreamParser]"));
}

TEST_F(PlayTaskSeek, ServesATargetAmongThePackets) {
    addVideoPlay(1000, 1080);
    addAudioPlay(1000, 1080);
    const auto videoDecode = addVideoDecode();
    const auto audioDecode = addAudioDecode();
    LogCapture log;
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_THAT(videoDecode->calls, ElementsAre("check 2000", "clear 2000"));
    EXPECT_THAT(audioDecode->calls, ElementsAre("clear 2000"));
    EXPECT_TRUE(under.peer.isSeeking());
    EXPECT_EQ(under.task->getCurrentTime(), 2000);
    EXPECT_FALSE(log.has("[StreamParser]"));
    // Not flushed: the play threads skip to the target.
    EXPECT_EQ(videoFrames(), 3);
    EXPECT_EQ(audioFrames(), 3);
    EXPECT_TRUE(log.has("[VideoPlayThread]: seek, seekTimeMs:2000\n"));
    EXPECT_TRUE(log.has("[AudioPlayThread]: seek, seekTimeMs:2000, needFlush:0\n"));
}

// Sound that isn't there yet is left as it is.
TEST_F(PlayTaskSeek, DoesNotLookAtTheAnswerOfAudio) {
    addVideoPlay(1000, 1080);
    addVideoDecode();
    const auto audioDecode = addAudioDecode();
    audioDecode->observer = nullptr;
    LogCapture log;
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_THAT(audioDecode->calls, ElementsAre("clear 2000"));
    EXPECT_FALSE(log.has("[StreamParser]"));
    EXPECT_FALSE(log.has("[AudioPlayThread]"));
}

TEST_F(PlayTaskSeek, ServesSoundAloneAmongItsPackets) {
    addAudioPlay(1000, 1080);
    const auto audioDecode = addAudioDecode();
    LogCapture log;
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_THAT(audioDecode->calls, ElementsAre("check 2000", "clear 2000"));
    EXPECT_TRUE(under.peer.isSeeking());
    EXPECT_FALSE(log.has("[StreamParser]"));
}

TEST_F(PlayTaskSeek, GoesToTheDemuxerForTheRest) {
    addVideoPlay(1000, 1080);
    const auto videoDecode = addVideoDecode();
    const auto audioDecode = addAudioDecode();
    videoDecode->reached = false;
    LogCapture log;
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_THAT(videoDecode->calls, ElementsAre("check 2000"));
    EXPECT_THAT(audioDecode->calls, IsEmpty());
    EXPECT_TRUE(log.has("[StreamParser]: seek to 2000 ms\n"));
    EXPECT_TRUE(under.peer.isSeeking());
    EXPECT_EQ(under.peer.seekingTimeMs(), 2000);

    // The parser's answer goes to both decode threads, theirs to the play threads.
    under.fromParser().onSeekStart(2000);
    EXPECT_THAT(videoDecode->calls, ElementsAre("check 2000", "seek 2000"));
    EXPECT_THAT(audioDecode->calls, ElementsAre("seek 2000"));
    under.fromVideoDecode().onVideoDecodeSeek(2000, true);
    EXPECT_EQ(videoFrames(), 0);
    under.fromParser().onSeekCompleted();
    EXPECT_TRUE(under.peer.isSeeking());
    under.fromVideoPlay().onFirstVideoFrame(1990);
    EXPECT_FALSE(under.peer.isSeeking());
}

// Which stage has it: what the picture's play thread is told of counts where there is one, else the sound's.
TEST_F(PlayTaskSeek, KnowsHowFarItHasCome) {
    for (const bool hasVideo : {true, false}) {
        if (hasVideo) {
            addVideoPlay(1000, 1080);
        } else {
            under.peer.set(std::shared_ptr<VideoPlayThread>());
        }
        addAudioPlay(1000, 1080);
        under.peer.setSeeking(false, 0);
        EXPECT_TRUE(under.task->seek(2000));
        EXPECT_EQ(under.peer.seekPhase(), 2);
        under.fromParser().onSeekStart(2000);
        EXPECT_EQ(under.peer.seekPhase(), 3);
        if (hasVideo) {
            under.fromAudioDecode().onAudioDecodeSeek(2000, true);
            EXPECT_EQ(under.peer.seekPhase(), 3);
            under.fromVideoDecode().onVideoDecodeSeek(2000, true);
        } else {
            under.fromVideoDecode().onVideoDecodeSeek(2000, true);
            EXPECT_EQ(under.peer.seekPhase(), 3);
            under.fromAudioDecode().onAudioDecodeSeek(2000, true);
        }
        EXPECT_EQ(under.peer.seekPhase(), 4);
    }
}

// Between the question and the order the decode thread may take its last packet. Nothing would end that seek.
TEST_F(PlayTaskSeek, GoesToTheDemuxerIfTheQueueRanEmptyMeanwhile) {
    addVideoPlay(1000, 1080);
    const auto videoDecode = addVideoDecode();
    videoDecode->observer = nullptr;
    LogCapture log;
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_THAT(videoDecode->calls, ElementsAre("check 2000", "clear 2000"));
    EXPECT_TRUE(log.has("[StreamParser]: seek to 2000 ms\n"));

    under.peer.setSeeking(false, 0);
    under.peer.set(std::shared_ptr<VideoDecodeThread>());
    under.peer.set(std::shared_ptr<VideoPlayThread>());
    addAudioDecode()->observer = nullptr;
    EXPECT_TRUE(under.task->seek(3000));
    EXPECT_TRUE(log.has("[StreamParser]: seek to 3000 ms\n"));
}

TEST_F(PlayTaskSeek, CollapsesWhatWaitsToTheLast) {
    addVideoPlay(1000, 1080);
    under.peer.setSeeking(true, 500);
    LogCapture log;
    EXPECT_TRUE(under.task->seek(1000));
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_EQ(under.peer.seeksWaiting(), 2);
    EXPECT_EQ(under.peer.newestSeek(), 2000);
    EXPECT_TRUE(log.has("[PlayTask]: seek, seekTimeMs:1000, reqQueue.size:0, now is seeking...\n"));
    EXPECT_EQ(log.count("[PlayTask]: seek, seekTimeMs:2000, reqQueue.size:1, now is seeking...\n"), 1);
    EXPECT_EQ(log.count("[PlayTask]: seek, seekTimeMs:2000, reqQueue.size:2, now is seeking...\n"), 1);
    EXPECT_EQ(under.task->getCurrentTime(), 500);

    log.clear();
    under.fromVideoPlay().onFirstVideoFrame(500);
    under.drainWorker();
    EXPECT_EQ(log.count("[PlayTask]: processBufferedSeekRequest, startSeek seekTimeMs:2000, queueSize:2\n"), 1);
    EXPECT_EQ(log.count("[StreamParser]: seek to 2000 ms\n"), 1);
    EXPECT_EQ(log.count("[StreamParser]: seek to 1000 ms\n"), 0);
    EXPECT_TRUE(under.peer.isSeeking());
    EXPECT_EQ(under.task->getCurrentTime(), 2000);
    EXPECT_EQ(under.peer.seeksWaiting(), 0);

    under.fromVideoPlay().onFirstVideoFrame(2000);
    under.drainWorker();
    EXPECT_FALSE(under.peer.isSeeking());
}

TEST_F(PlayTaskSeek, QueuesAnEarlierTimeAgain) {
    under.peer.setSeeking(true, 500);
    for (const int time : {1000, 2000, 1000, 1000, -7, 0}) {
        EXPECT_TRUE(under.task->seek(time));
    }
    EXPECT_EQ(under.peer.seeksWaiting(), 4);
    EXPECT_EQ(under.peer.newestSeek(), 0);
}

TEST_F(PlayTaskSeek, ReplaysAfterTheFirstSoundWithoutVideo) {
    addAudioPlay(1000, 1080);
    under.peer.setSeeking(true, 500);
    EXPECT_TRUE(under.task->seek(3000));
    under.fromAudioPlay().onFirstAudioFrame(500);
    under.drainWorker();
    EXPECT_TRUE(under.peer.isSeeking());
    EXPECT_EQ(under.peer.seekingTimeMs(), 3000);
}

// The replay takes the whole way: the target may be among the frames by then.
TEST_F(PlayTaskSeek, ReplaysFromTheNearestPlace) {
    addVideoPlay(1000, 1200);
    under.peer.setSeeking(true, 1000);
    EXPECT_TRUE(under.task->seek(1100));
    LogCapture log;
    under.fromVideoPlay().onFirstVideoFrame(1000);
    under.drainWorker();
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_EQ(videoFrames(), 4);
    EXPECT_FALSE(log.has("[StreamParser]"));
}

TEST_F(PlayTaskSeek, TakesTheClockOutOfItsPause) {
    addVideoPlay(1000, 1080);
    const auto clock = std::make_shared<MasterClock>();
    under.peer.set(clock);
    FakeTime::advanceMs(1000);
    under.task->pause();
    under.task->seek(20000);
    under.fromVideoPlay().onFirstVideoFrame(20010);
    FakeTime::advanceMs(700);
    under.task->resume();
    EXPECT_EQ(clock->getSyncPts(), 20010);
}

TEST_F(PlayTaskSeek, IsForgottenByStop) {
    addVideoPlay(1000, 1080);
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_TRUE(under.task->seek(3000));
    EXPECT_EQ(under.peer.seeksWaiting(), 1);
    EXPECT_EQ(under.peer.newestSeek(), 3000);
    under.task->stop();
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_EQ(under.peer.seeksWaiting(), 0);
    EXPECT_EQ(under.task->getCurrentTime(), 0);
    LogCapture log;
    under.fromVideoPlay().onFirstVideoFrame(0);
    under.drainWorker();
    EXPECT_FALSE(log.has("processBufferedSeekRequest"));
}

// A replay that the worker comes to only after a stop belongs to a source that is gone.
TEST_F(PlayTaskSeek, IsNotReplayedOnTheNextSource) {
    addVideoPlay(1000, 1080);
    under.peer.setSeeking(true, 500);
    EXPECT_TRUE(under.task->seek(3000));

    std::mutex gate;
    gate.lock();
    under.worker->task([&] { std::lock_guard wait(gate); });
    under.fromVideoPlay().onFirstVideoFrame(500);
    EXPECT_EQ(under.peer.seeksWaiting(), 0);
    under.task->stop();
    under.peer.setSeekable(true, 60000);
    LogCapture log;
    gate.unlock();
    under.drainWorker();
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_FALSE(log.has("[PlayTask]"));
}

// A request may find the seek running and wait its turn, while the end of the seek looks at an empty queue.
TEST_F(PlayTaskSeek, IsNotParkedBehindTheEndOfTheRunningOne) {
    addVideoPlay(100000, 100040);
    under.peer.setSeeking(true, 1);
    LogCapture log;
    auto turns = under.peer.lockSeekTurns();
    std::thread late([&] { EXPECT_TRUE(under.task->seek(1000)); });
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return log.has("[PlayTask]: seek, seekTimeMs:1000, seekable:1"); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // until it stands before the turns
    under.peer.endSeek();
    turns.unlock();
    late.join();
    EXPECT_EQ(under.peer.seeksWaiting(), 0);
    EXPECT_TRUE(under.peer.isSeeking());
    EXPECT_EQ(under.peer.seekingTimeMs(), 1000);
}

// A request that is made while the running seek ends is either taken up by that end or starts by itself.
TEST_F(PlayTaskSeek, LosesNoRequestAtTheEndOfASeek) {
    addVideoPlay(100000, 100040);
    LogCapture quiet(-1);
    for (int i = 0; i < 2000; ++i) {
        under.peer.setSeeking(true, 1);
        std::atomic<bool> go{false};
        std::thread end([&] {
            while (!go) {
            }
            under.fromVideoPlay().onFirstVideoFrame(1);
        });
        go = true;
        ASSERT_TRUE(under.task->seek(1000 + i));
        end.join();
        under.drainWorker();
        ASSERT_EQ(under.peer.seeksWaiting(), 0);
        ASSERT_TRUE(under.peer.isSeeking());
        ASSERT_EQ(under.peer.seekingTimeMs(), 1000 + i);
    }
}

// Keeps whoever asks for its buffer for a while, or until another one asks, too.
class SlowVideoPlay : public VideoPlayThread {
public:
    SlowVideoPlay() : VideoPlayThread(false, nullptr) {}
    bool checkBuffer(int) override {
        ++asking;
        TaskUnderTest::waitUntil([&] { return asking == 2; }, 30);
        return false;
    }
    std::atomic<int> asking{0};
};

// Two that start at once: one runs, the other waits for its end.
TEST_F(PlayTaskSeek, RunsOneAtATime) {
    for (int i = 0; i < 10; ++i) {
        under.peer.set(std::shared_ptr<VideoPlayThread>(std::make_shared<SlowVideoPlay>()));
        under.peer.setSeeking(false, 0);
        std::thread other([&] { under.task->seek(2000); });
        under.task->seek(1000);
        other.join();
        ASSERT_TRUE(under.peer.isSeeking());
        const int running = under.peer.seekingTimeMs();
        ASSERT_EQ(under.peer.seeksWaiting(), 1);
        ASSERT_EQ(under.peer.newestSeek(), 3000 - running);
        under.fromVideoPlay().onFirstVideoFrame(running);
        under.drainWorker();
        ASSERT_EQ(under.peer.seekingTimeMs(), 3000 - running);
        ASSERT_EQ(under.peer.seeksWaiting(), 0);
    }
}

// Exact seeks.

class PlayTaskExactSeek : public PlayTaskSeek {
protected:
    PlayTaskExactSeek() {
        under.task->changeOptions([](PlaybackOptions& options) { options.seekRule = SeekRule::Exact; });
    }
};

// It runs until its first frame, as any other.
TEST_F(PlayTaskExactSeek, RunsAmongTheFrames) {
    addVideoPlay(1000, 1200);
    addAudioPlay(900, 1300);
    const auto videoDecode = addVideoDecode();
    LogCapture log;
    EXPECT_TRUE(under.task->seek(1100));
    EXPECT_TRUE(under.peer.isSeeking());
    EXPECT_EQ(under.peer.seekPhase(), 4);
    EXPECT_EQ(videoFrames(), 6);
    EXPECT_THAT(videoDecode->calls, IsEmpty());
    EXPECT_TRUE(log.has("[AudioPlayThread]: seek, seekTimeMs:1100, needFlush:0\n"));
    EXPECT_FALSE(log.has("[StreamParser]"));
    under.fromVideoPlay().onFirstVideoFrame(1080);
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_THAT(under.eventsOf(EVENT_FIRST_VIDEO_FRAME), ElementsAre(Event{EVENT_FIRST_VIDEO_FRAME, 1080, 0, 0}));
}

TEST_F(PlayTaskExactSeek, RunsAmongThePackets) {
    addVideoPlay(1000, 1080);
    addAudioPlay(1000, 1080);
    const auto videoDecode = addVideoDecode();
    LogCapture log;
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_EQ(under.peer.seekPhase(), 4);
    EXPECT_THAT(videoDecode->calls, ElementsAre("check 2000"));
    EXPECT_FALSE(log.has("[StreamParser]"));
}

// A frame that has gone, of pictures or of sound, may be the one.
TEST_F(PlayTaskExactSeek, GoesToTheDemuxerIfAFrameOfTheTargetMayBeGone) {
    addVideoDecode();
    LogCapture log;
    addVideoPlay(1040, 1000);  // none
    EXPECT_TRUE(under.task->seek(2000));
    EXPECT_EQ(log.count("[StreamParser]: seek to 2000 ms\n"), 1);
    EXPECT_EQ(under.peer.seekPhase(), 2);
    under.task->stop();

    under.peer.setSeekable(true, 60000);
    addVideoDecode();
    addVideoPlay(1000, 1200);
    for (const int64_t firstSound : {1101, 9000}) {
        addAudioPlay(firstSound, firstSound == 9000 ? 0 : 1300);
        EXPECT_TRUE(under.task->seek(1100));
        EXPECT_EQ(under.peer.seekPhase(), 2);
        under.fromParser().onSeekStart(1100);
        under.fromVideoDecode().onVideoDecodeSeek(1100, true);
        under.fromVideoPlay().onFirstVideoFrame(1100);
        addVideoPlay(1000, 1200);
    }
    EXPECT_EQ(log.count("[StreamParser]: seek to 1100 ms\n"), 2);
}

TEST_F(PlayTaskExactSeek, RunsAmongTheSoundWhereThereIsNoPicture) {
    addAudioPlay(1000, 1200);
    LogCapture log;
    EXPECT_TRUE(under.task->seek(1100));
    EXPECT_EQ(under.peer.seekPhase(), 4);
    EXPECT_FALSE(log.has("[StreamParser]"));
    under.fromAudioPlay().onFirstAudioFrame(1100);
    EXPECT_TRUE(under.task->seek(900));
    EXPECT_TRUE(log.has("[StreamParser]: seek to 900 ms\n"));
}

TEST_F(PlayTaskExactSeek, SetsTheClockToTheTarget) {
    addVideoPlay(1000, 1080);
    const auto clock = std::make_shared<MasterClock>();
    under.peer.set(clock);
    under.task->seek(25900);
    under.fromVideoPlay().onFirstVideoFrame(0);
    EXPECT_TRUE(under.peer.isSeeking()) << "that was the very first picture";
    under.fromVideoDecode().onVideoDecodeSeek(25900, true);
    under.fromVideoPlay().onFirstVideoFrame(25000);
    EXPECT_EQ(clock->getSyncPts(), 25900);
    EXPECT_FALSE(under.peer.isSeeking());
}

TEST_F(PlayTaskExactSeek, IsntEndedByTheVeryFirstFrame) {
    const auto clock = std::make_shared<MasterClock>();
    under.peer.set(clock);
    addAudioPlay(1000, 900);
    for (const bool isSoundAlone : {true, false}) {
        under.task->seek(25900);
        isSoundAlone ? under.fromAudioDecode().onAudioDecodeSeek(25900, true)
                     : under.fromVideoDecode().onVideoDecodeSeek(25900, true);
        EXPECT_EQ(under.peer.seekPhase(), 4);
        isSoundAlone ? under.fromAudioPlay().onVeryFirstAudioFrame(40)
                     : under.fromVideoPlay().onVeryFirstVideoFrame(40);
        EXPECT_TRUE(under.peer.isSeeking());
        EXPECT_EQ(clock->getSyncPts(), 40);
        isSoundAlone ? under.fromAudioPlay().onFirstAudioFrame(25900) : under.fromVideoPlay().onFirstVideoFrame(25900);
        EXPECT_FALSE(under.peer.isSeeking());
        addVideoPlay(1000, 900);
    }
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_VIDEO_FRAME).size(), 2U);
}

TEST_F(PlayTaskExactSeek, GoesToTheDemuxerForWhatCameTooLate) {
    addVideoPlay(1000, 1200);
    const auto videoDecode = addVideoDecode();
    videoDecode->leftOutBeforeMs = 1150;
    LogCapture log;
    EXPECT_TRUE(under.task->seek(1100));
    EXPECT_EQ(log.count("[StreamParser]: seek to 1100 ms\n"), 1);
}

TEST_F(PlayTaskExactSeek, WaitsForAPictureWhereThereAreSome) {
    under.task->seek(2000);
    EXPECT_FALSE(under.fromParser().isPictureAwaited());
    addVideoPlay(1000, 1080);
    EXPECT_TRUE(under.fromParser().isPictureAwaited());
    under.fromVideoDecode().onVideoDecodeSeek(2000, true);
    under.fromVideoPlay().onFirstVideoFrame(2000);
    EXPECT_FALSE(under.fromParser().isPictureAwaited());
}

// The film ends without a frame for the seek: the newest request goes on all the same, and no end is told.
TEST_F(PlayTaskExactSeek, GoesOnWithTheNewestWhereTheFilmEnds) {
    addVideoPlay(1000, 1080);
    addVideoDecode();
    for (const bool isFailure : {false, true}) {
        under.task->seek(20000);
        under.task->seek(30000);
        under.task->seek(40000);
        under.fromParser().onSeekStart(20000);
        under.fromVideoDecode().onVideoDecodeSeek(20000, true);
        LogCapture log;
        isFailure ? under.fromParser().onPlayFailed() : under.fromParser().onPlaybackCompleted();
        under.drainWorker();
        EXPECT_TRUE(log.has("[StreamParser]: seek to 40000 ms\n"));
        EXPECT_EQ(under.peer.seekingTimeMs(), 40000);
        under.fromParser().onPlaybackCompleted();  // of what was read before
        EXPECT_THAT(under.eventsOf(EVENT_COMPLETED), IsEmpty());
        EXPECT_THAT(under.eventsOf(EVENT_FAILED), IsEmpty());
        under.fromParser().onSeekStart(40000);
        under.fromVideoDecode().onVideoDecodeSeek(40000, true);
        under.fromVideoPlay().onFirstVideoFrame(40000);
    }
    under.fromParser().onPlaybackCompleted();
    EXPECT_EQ(under.eventsOf(EVENT_COMPLETED).size(), 1U);
}

}  // namespace
}  // namespace kelp::test
