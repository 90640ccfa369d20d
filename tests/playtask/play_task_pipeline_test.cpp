#include "clock/exact_clock.h"
#include "kelp_player/kelp_player.h"
#include "playtask/pipeline_fixture.h"
#include "support/private_member.h"

// Whole pipelines on small files: how they are built and taken down. Sound goes to SDL's dummy driver, which takes it
// in real time, and so tests that play sound to its end do so, too.

namespace kelp::test {

using FrameQueue = std::queue<std::shared_ptr<DecodedFrame>> BasePlayThread::*;
FrameQueue privateMember(PrivateMember<struct FrameQueueTag, FrameQueue>);
template struct ExposeMember<struct FrameQueueTag, &BasePlayThread::frameQueue_>;
using QueueMutex = std::mutex BasePlayThread::*;
QueueMutex privateMember(PrivateMember<struct QueueMutexTag, QueueMutex>);
template struct ExposeMember<struct QueueMutexTag, &BasePlayThread::queueMutex_>;
using Decoder = std::shared_ptr<IAudioDecoder> AudioDecodeThread::*;
Decoder privateMember(PrivateMember<struct DecoderTag, Decoder>);
template struct ExposeMember<struct DecoderTag, &AudioDecodeThread::decoder_>;
using DecoderTime = std::atomic<int64_t> RenderTiming::*;
DecoderTime privateMember(PrivateMember<struct DecoderTimeTag, DecoderTime>);
template struct ExposeMember<struct DecoderTimeTag, &RenderTiming::decoderTimeMs_>;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(PlayTaskPipeline, IsBuiltFromSoundToPictureToSource) {
    load("av.mp4");
    LogCapture log;
    ASSERT_TRUE(under.task->play());
    EXPECT_THAT(
        only(linesOf(log), "startThread"),
        ElementsAre("[BaseThread]: [AudioDecodeThread] startThread\n", "[BaseThread]: [AudioPlayThread] startThread\n",
                    "[BaseThread]: [VideoDecodeThread] startThread\n", "[BaseThread]: [VideoPlayThread] startThread\n",
                    "[BaseThread]: [StreamParser] startThread\n"));
    EXPECT_EQ(log.count("[PlayTask]: play, streamInfo:{ start_time:0, has_video:1, has_audio:1, seekable:1,  }\n"), 1);
    EXPECT_NE(under.peer.videoDecode(), nullptr);
    EXPECT_NE(under.peer.audioDecode(), nullptr);
    EXPECT_NE(under.peer.videoPlay(), nullptr);
    EXPECT_NE(under.peer.audioPlay(), nullptr);
    EXPECT_EQ(under.peer.syncObject(), under.peer.masterClock());
    EXPECT_EQ(VideoPlayThreadPeer::followed(*under.peer.videoPlay()), under.peer.masterClock());
    EXPECT_EQ(AudioPlayThreadPeer::followed(*under.peer.audioPlay()), under.peer.masterClock());

    log.clear();
    EXPECT_TRUE(under.task->stop());
    EXPECT_THAT(only(linesOf(log), "joinThread end"),
                ElementsAre("[BaseThread]: [StreamParser] joinThread end\n",  // stop
                            "[BaseThread]: [StreamParser] joinThread end\n",  // close
                            "[BaseThread]: [VideoDecodeThread] joinThread end\n",
                            "[BaseThread]: [AudioDecodeThread] joinThread end\n",
                            "[BaseThread]: [VideoPlayThread] joinThread end\n",
                            "[BaseThread]: [AudioPlayThread] joinThread end\n"));
    EXPECT_EQ(only(linesOf(log), "[PlayTask]: stop").front(), "[PlayTask]: stop begin\n");
    EXPECT_EQ(linesOf(log).back(), "[PlayTask]: stop end\n");
    EXPECT_EQ(under.peer.videoDecode(), nullptr);
    EXPECT_EQ(under.peer.audioDecode(), nullptr);
    EXPECT_EQ(under.peer.videoPlay(), nullptr);
    EXPECT_EQ(under.peer.audioPlay(), nullptr);
    EXPECT_THAT(under.peer.pixPool(), IsEmpty());
    EXPECT_THAT(under.peer.pcmPool(), IsEmpty());
}

TEST_F(PlayTaskPipeline, PlaysToTheEnd) {
    under.task->addWindow(WINDOW_TYPE_EXTERN, &sink, 64, 48);
    load("av.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_COMPLETED));
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_PACKET).size(), 1u);
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_VIDEO_FRAME), std::vector<Event>{(Event{EVENT_FIRST_VIDEO_FRAME, 0, 0, 0})});
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_AUDIO_FRAME).size(), 1u);
    EXPECT_THAT(under.eventsOf(EVENT_FAILED), IsEmpty());
    EXPECT_GT(sink.count, 0);
    // The real end overrides the container's.
    ASSERT_EQ(under.eventsOf(EVENT_DURATION_UPDATED).size(), 1u);
    EXPECT_EQ(under.task->getDuration(), under.eventsOf(EVENT_DURATION_UPDATED)[0].a);

    // A seek brings it back to life, and there is a second end.
    EXPECT_TRUE(under.task->seek(1000));
    ASSERT_TRUE(under.waitFor(EVENT_COMPLETED, 2));
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_PACKET).size(), 2u);
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_VIDEO_FRAME).size(), 2u);
    EXPECT_FALSE(under.peer.isSeeking());
}

TEST_F(PlayTaskPipeline, PlaysPicturesAlone) {
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(under.peer.audioDecode(), nullptr);
    EXPECT_EQ(under.peer.audioPlay(), nullptr);
    ASSERT_TRUE(under.waitFor(EVENT_COMPLETED));
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_VIDEO_FRAME).size(), 1u);
    EXPECT_THAT(under.eventsOf(EVENT_FIRST_AUDIO_FRAME), IsEmpty());
}

TEST_F(PlayTaskPipeline, PlaysSoundAlone) {
    load("audio.mp4");
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(under.peer.videoDecode(), nullptr);
    EXPECT_EQ(under.peer.videoPlay(), nullptr);
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_AUDIO_FRAME));
    EXPECT_TRUE(TaskUnderTest::waitUntil([&] { return under.task->setVolume(0.5f); }));
}

TEST_F(PlayTaskPipeline, MakesSoundAloneTheMasterWherePicturesAreWanted) {
    under.task->setSyncMasterMode(SYNC_MASTER_VIDEO);
    load("audio.mp4");
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(under.peer.effectiveMode(), SYNC_MASTER_AUDIO);
    ASSERT_NE(under.peer.audioPlay(), nullptr);
    EXPECT_EQ(under.peer.master(), under.peer.audioPlay());
    // It follows nobody, itself neither.
    EXPECT_EQ(AudioPlayThreadPeer::followed(*under.peer.audioPlay()), nullptr);
    EXPECT_TRUE(under.waitFor(EVENT_FIRST_AUDIO_FRAME));
}

TEST_F(PlayTaskPipeline, LeavesOutACodecThatItDoesNotKnow) {
    load("foreign.mkv");
    EXPECT_EQ(under.eventsOf(EVENT_PREPARED), std::vector<Event>{(Event{EVENT_PREPARED, 1, 1, 0})});
    EXPECT_EQ(under.peer.codecInfo()->videoCodecType, VIDEO_CODEC_NONE);
    LogCapture log;
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(under.peer.videoDecode(), nullptr);
    EXPECT_EQ(under.peer.videoPlay(), nullptr);
    EXPECT_NE(under.peer.audioPlay(), nullptr);
    EXPECT_FALSE(log.has("play, failed"));
    EXPECT_TRUE(under.waitFor(EVENT_FIRST_AUDIO_FRAME));
}

TEST_F(PlayTaskPipeline, PlaysPacketsThatArePicturesToTheEnd) {
    under.task->addWindow(WINDOW_TYPE_EXTERN, &sink, 64, 48);
    load("video.mp4");
    under.peer.codecInfo()->videoCodecType = VIDEO_CODEC_270;
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_COMPLETED));
    EXPECT_GT(sink.packets, 0);
    EXPECT_EQ(sink.packets, sink.count);
    EXPECT_EQ(under.peer.videoDecode()->getQueuePacketSize(), 0);
    EXPECT_EQ(under.peer.videoPlay()->getFrameQueueSize(), 0);
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_VIDEO_FRAME).size(), 1u);
    EXPECT_THAT(under.eventsOf(EVENT_FAILED), IsEmpty());
}

TEST_F(PlayTaskPipeline, StopsAnyNumberOfTimes) {
    LogCapture log(3);
    EXPECT_TRUE(under.task->stop());
    EXPECT_TRUE(under.task->stop());
    EXPECT_THAT(only(linesOf(log), "[PlayTask]"), ElementsAre("[PlayTask]: stop begin\n", "[PlayTask]: stop end\n",
                                                              "[PlayTask]: stop begin\n", "[PlayTask]: stop end\n"));
}

TEST_F(PlayTaskPipeline, StopsWhilePaused) {
    load("av.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_AUDIO_FRAME));
    EXPECT_TRUE(under.task->pause());
    EXPECT_TRUE(under.task->stop());
}

TEST_F(PlayTaskPipeline, LeavesItsPoolsEmptyWhateverDiesAfterTheStop) {
    load("long.mp4");
    ASSERT_TRUE(under.task->play());
    EXPECT_TRUE(under.task->pause());
    const auto video = under.peer.videoPlay();
    const auto audio = under.peer.audioPlay();
    // One may be on its way out still.
    ASSERT_TRUE(
        TaskUnderTest::waitUntil([&] { return video->getFrameQueueSize() >= 2 && audio->getFrameQueueSize() >= 2; }));
    const auto queuedFrames = [](BasePlayThread& thread) {
        std::lock_guard lock(thread.*privateMember(PrivateMember<QueueMutexTag, QueueMutex>{}));
        return thread.*privateMember(PrivateMember<FrameQueueTag, FrameQueue>{});
    };
    // A private base, which this kind of cast alone reaches.
    auto pictures = queuedFrames((BasePlayThread&)*video);  // NOLINT(google-readability-casting)
    auto sounds = queuedFrames((BasePlayThread&)*audio);    // NOLINT(google-readability-casting)
    ASSERT_FALSE(pictures.empty());
    ASSERT_FALSE(sounds.empty());
    ASSERT_NE(pictures.back()->buffer, nullptr);
    ASSERT_NE(sounds.back()->buffer, nullptr);
    EXPECT_TRUE(under.task->stop());
    pictures = {};
    sounds = {};
    EXPECT_THAT(under.peer.pixPool(), IsEmpty());
    EXPECT_THAT(under.peer.pcmPool(), IsEmpty());
}

TEST_F(PlayTaskPipeline, StopsDuringASeek) {
    load("long.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(under.task->seek(15000 - i * 500));
    }
    EXPECT_TRUE(under.task->stop());
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_EQ(under.peer.seeksWaiting(), 0);
    EXPECT_EQ(under.task->getCurrentTime(), 0);
    under.drainWorker();

    // The next playback doesn't inherit it.
    const size_t before = under.eventsOf(EVENT_FIRST_VIDEO_FRAME).size();
    load("long.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME, before + 1));
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_VIDEO_FRAME)[before], (Event{EVENT_FIRST_VIDEO_FRAME, 0, 0, 0}));
}

TEST_F(PlayTaskPipeline, GivesItsWindowsToEachPlayback) {
    under.task->addWindow(WINDOW_TYPE_EXTERN, &sink, 64, 48);
    under.task->addWindow(WINDOW_TYPE_QT_WINID, nullptr, 64, 48);
    for (int i = 0; i < 2; ++i) {
        sink.count = 0;
        load("video.mp4");
        LogCapture log;
        ASSERT_TRUE(under.task->play());
        EXPECT_TRUE(TaskUnderTest::waitUntil([&] { return sink.count > 0; }));
        EXPECT_EQ(log.count("[VideoPlayThread]: addWindow, "), 1);  // none for the null handle
        under.task->stop();
        EXPECT_EQ(under.peer.windows().size(), 2u);
    }
}

TEST_F(PlayTaskPipeline, ShowsWindowsThatAreAddedWhileItPlays) {
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    under.task->addWindow(WINDOW_TYPE_EXTERN, &sink, 64, 48);
    EXPECT_TRUE(TaskUnderTest::waitUntil([&] { return sink.count > 0; }));
    EXPECT_EQ(under.peer.windows().size(), 1u);
    under.task->stop();
}

TEST_F(PlayTaskPipeline, KeepsTheClockOfTheFirstRun) {
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    const auto first = under.peer.masterClock();
    under.task->stop();
    EXPECT_EQ(under.peer.masterClock(), first);
    EXPECT_EQ(under.peer.syncObject(), first);

    // Followed is the old one, and the new one is what a pause and a first frame act on.
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    EXPECT_NE(under.peer.masterClock(), first);
    EXPECT_EQ(under.peer.syncObject(), first);
    EXPECT_EQ(VideoPlayThreadPeer::followed(*under.peer.videoPlay()), first);
    under.task->setExternSyncClock(nullptr);
    EXPECT_EQ(VideoPlayThreadPeer::followed(*under.peer.videoPlay()), under.peer.masterClock());
    under.task->stop();
}

TEST_F(PlayTaskPipeline, FollowsTheClockOfEachRunWithExactTiming) {
    under.task->changeOptions([](PlaybackOptions& options) { options.exactTiming = true; });
    under.task->setSpeed(2.0f);
    for (int run = 0; run < 2; ++run) {
        load("video.mp4");
        ASSERT_TRUE(under.task->play());
        const auto clock = under.peer.masterClock();
        EXPECT_EQ(under.peer.syncObject(), clock);
        EXPECT_EQ(VideoPlayThreadPeer::followed(*under.peer.videoPlay()), clock);
        EXPECT_TRUE(std::dynamic_pointer_cast<ExactClock>(clock));
        EXPECT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME, static_cast<size_t>(run) + 1));
        under.task->stop();
    }

    // But not in place of the host's.
    const auto hosts = std::make_shared<MasterClock>();
    under.task->setExternSyncClock(hosts);
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(VideoPlayThreadPeer::followed(*under.peer.videoPlay()), hosts);
    under.task->stop();
    under.task->setExternSyncClock(nullptr);
    load("video.mp4");
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(VideoPlayThreadPeer::followed(*under.peer.videoPlay()), under.peer.masterClock());
    under.task->stop();
}

TEST_F(PlayTaskPipeline, TakesTheSpeedSetBeforehand) {
    under.task->setSpeed(1.5f);
    load("audio.mp4");
    LogCapture log;
    ASSERT_TRUE(under.task->play());
    {
        std::lock_guard lock(PipelineFaults::temposMutex);
        ASSERT_GE(PipelineFaults::tempos.size(), 2u);
        EXPECT_FLOAT_EQ(PipelineFaults::tempos[0], 1.0f);  // with the output's form
        EXPECT_FLOAT_EQ(PipelineFaults::tempos[1], 1.5f);
    }
    under.task->stop();
    // It stays for the next playback.
    {
        std::lock_guard lock(PipelineFaults::temposMutex);
        PipelineFaults::tempos.clear();
    }
    load("audio.mp4");
    ASSERT_TRUE(under.task->play());
    std::lock_guard lock(PipelineFaults::temposMutex);
    ASSERT_GE(PipelineFaults::tempos.size(), 2u);
    EXPECT_FLOAT_EQ(PipelineFaults::tempos[1], 1.5f);
}

// Either the output follows the clock by its tempo, or the decoder by its samples.
TEST_F(PlayTaskPipeline, LetsTheDecoderFollowTheClockWhereTheOutputCannot) {
    for (const bool noTempo : {false, true}) {
        PipelineFaults::noSoundTouch = noTempo;
        load("av.mp4");
        ASSERT_TRUE(under.task->play());
        const auto decoder = (*under.peer.audioDecode()).*privateMember(PrivateMember<DecoderTag, Decoder>{});
        EXPECT_EQ(decoder->isSyncOpened(), noTempo);
        under.task->stop();
    }
}

TEST_F(PlayTaskPipeline, TellsTheTimingFilterHowLongDecodingTakes) {
    load("video.mp4");
    const auto timing = under.peer.renderTiming();
    timing->reset();  // as the stop of a playback before leaves it, so that any packet would give it a line
    auto& decoderTimeMs = (*timing).*privateMember(PrivateMember<DecoderTimeTag, DecoderTime>{});
    timing->setDecoderTimeMs(77);
    ASSERT_TRUE(under.task->play());
    EXPECT_TRUE(TaskUnderTest::waitUntil([&] { return decoderTimeMs != 77; }));
    // The packets of a file come when they are read, which tells nothing of when they belong.
    EXPECT_EQ(timing->renderTime(0), -1);
    ASSERT_TRUE(under.waitFor(EVENT_COMPLETED));
    EXPECT_EQ(timing->renderTime(0), -1);
    timing->setDecoderTimeMs(77);
    under.task->stop();
    EXPECT_EQ(decoderTimeMs, 0);
}

TEST_F(PlayTaskPipeline, PlaysWithoutATempoChange) {
    PipelineFaults::noSoundTouch = true;
    under.task->setSpeed(1.5f);
    load("av.mp4");
    ASSERT_TRUE(under.task->play());
    EXPECT_FALSE(under.peer.audioPlay()->isSupportSpeedAdjust());
    under.task->setSpeed(2.0f);
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_AUDIO_FRAME));
    under.task->stop();
    std::lock_guard lock(PipelineFaults::temposMutex);
    EXPECT_THAT(PipelineFaults::tempos, IsEmpty());
}

TEST_F(PlayTaskPipeline, CompletesOnlyWhenResumed) {
    load("video.mp4");
    ASSERT_TRUE(under.task->pause());
    LogCapture log;
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    // Everything fits into the queues, so the end of the file is met during the pause.
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return log.has("onFileEnd"); }));
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return under.peer.videoPlay()->getFrameQueueSize() == 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // nothing to wait for: it must not come
    EXPECT_THAT(under.eventsOf(EVENT_COMPLETED), IsEmpty());
    ASSERT_TRUE(under.task->resume());
    EXPECT_TRUE(under.waitFor(EVENT_COMPLETED));
}

TEST_F(PlayTaskPipeline, LooksForNoRoomWhilePausedAndFillsItWhenAPictureGoes) {
    load("long.mp4");
    PipelineFaults::failingMediaType = AVMEDIA_TYPE_AUDIO;  // the sound's ring has a pace of its own
    FakeTime::setManual(true);
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    ASSERT_TRUE(under.task->pause());
    constexpr int kThreads = 4;  // the worker's, the parser's, the decoder's and the pictures'
    ASSERT_TRUE(FakeTime::runFor(1000, kThreads));
    EXPECT_EQ(under.fromParser().onVideoFrameQueueSize(), 3);
    const size_t before = FakeTime::sleeps().size();
    ASSERT_TRUE(FakeTime::runFor(10'000, kThreads));
    auto sleeps = FakeTime::sleeps();
    sleeps.erase(sleeps.begin(), sleeps.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_EQ(std::ranges::count(sleeps, 50), 200);   // the pictures'
    EXPECT_EQ(std::ranges::count(sleeps, 100), 100);  // the parser's
    EXPECT_EQ(sleeps.size(), 300U);

    // A seek within the queue takes pictures, and the pause goes on.
    ASSERT_TRUE(under.task->seek(80));
    EXPECT_FALSE(under.peer.isSeeking());
    EXPECT_TRUE(TaskUnderTest::waitUntil([&] { return under.fromParser().onVideoFrameQueueSize() == 3; }));
}

TEST_F(PlayTaskPipeline, SkipsInsideItsPacketQueue) {
    load("long.mp4");
    PipelineFaults::failingMediaType =
        AVMEDIA_TYPE_AUDIO;     // so that the packets that wait are all pictures: eight seconds of them
    FakeTime::setManual(true);  // the first picture stays until everything is filled up
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] {
        return under.fromParser().onVideoPacketQueueSize() >= 150 && under.fromParser().onVideoFrameQueueSize() >= 2;
    })) << under.fromParser().onVideoPacketQueueSize()
        << " packets, " << under.fromParser().onVideoFrameQueueSize() << " frames";
    ASSERT_TRUE(under.task->pause());
    const int target = 1500;
    LogCapture log;
    ASSERT_TRUE(under.task->seek(target));
    EXPECT_EQ(under.task->getCurrentTime(), target);
    FakeTime::setManual(false);
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME, 2));
    EXPECT_FALSE(log.has("[StreamParser]: seek to"));
    EXPECT_TRUE(log.has("[VideoDecodeThread]: onSeek, seekTimeMs:" + std::to_string(target) + ", flush:0\n"));
    const int shown = under.eventsOf(EVENT_FIRST_VIDEO_FRAME)[1].a;
    EXPECT_LE(shown, target);
    EXPECT_GE(shown, target - 40);
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_PACKET).size(), 1u);
}

TEST_F(PlayTaskPipeline, GoesBackByTheDemuxer) {
    load("long.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    EXPECT_TRUE(under.task->seek(12345));
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME, 2));
    const int shown = under.eventsOf(EVENT_FIRST_VIDEO_FRAME)[1].a;
    EXPECT_LE(shown, 12345);
    EXPECT_GE(shown, 12345 - 40);
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_PACKET).size(), 2u);
}

// Whatever a user does to the slider: the last place asked for is reached, and the player goes on from there.
TEST_F(PlayTaskPipeline, EndsUpWhereTheLastSeekGoes) {
    load("long.mp4");
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
    unsigned int random = 1;
    for (int i = 0; i < 40; ++i) {
        random = random * 1103515245 + 12345;
        ASSERT_TRUE(under.task->seek(static_cast<int>(random >> 16) % 18000));
        std::this_thread::sleep_for(std::chrono::milliseconds((random >> 8) % 8));
    }
    // A replay that is due has ended its predecessor, and may wait for the worker yet.
    const auto allAreOver = [&] { return under.peer.seekPhase() == 0 && under.peer.seeksWaiting() == 0; };
    ASSERT_TRUE(TaskUnderTest::waitUntil(allAreOver));
    ASSERT_TRUE(under.task->seek(3000));
    // One that was served among the frames is over before its event comes.
    EXPECT_TRUE(TaskUnderTest::waitUntil([&] {
        return std::abs(under.eventsOf(EVENT_FIRST_VIDEO_FRAME).back().a - 3000) <= 40 && allAreOver();
    })) << under.eventsOf(EVENT_FIRST_VIDEO_FRAME).back().a;
}

TEST_F(PlayTaskPipeline, CountsWhatItsStagesDo) {
    Statistics statistics = under.task->getStatistics();
    EXPECT_EQ(statistics.video.track, -1);
    under.task->addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    load("av.mp4");
    statistics = under.task->getStatistics();
    EXPECT_EQ(statistics.video.track, 0);
    EXPECT_EQ(statistics.video.codec, "h264");
    EXPECT_EQ(statistics.video.width, 64);
    EXPECT_EQ(statistics.video.height, 48);
    EXPECT_EQ(statistics.video.frameRate, 25);
    EXPECT_EQ(statistics.video.packets, 0);
    EXPECT_EQ(statistics.video.decoder, "");
    EXPECT_EQ(statistics.audio.track, 1);
    EXPECT_EQ(statistics.audio.codec, "aac");
    EXPECT_EQ(statistics.audio.channels, 2);
    ASSERT_TRUE(under.task->play());
    ASSERT_TRUE(under.waitFor(EVENT_COMPLETED));
    statistics = under.task->getStatistics();
    EXPECT_EQ(statistics.video.packets, 50);
    EXPECT_EQ(statistics.video.decoded, 50);
    EXPECT_EQ(statistics.video.shown + statistics.video.late, 50);
    EXPECT_GT(statistics.video.bytes, 1000);
    EXPECT_EQ(statistics.video.decoder, "h264");
    EXPECT_FALSE(statistics.video.isHardware);
    EXPECT_EQ(statistics.video.queue.count, 0);
    EXPECT_EQ(statistics.video.pictures.count, 0);
    EXPECT_GT(statistics.audio.packets, 80);
    EXPECT_EQ(statistics.audio.decoder, "aac");
    EXPECT_GT(statistics.audio.decoded, 80);
    EXPECT_GT(statistics.audio.blocks, 10);  // the tempo change makes fewer of them on this clock
    EXPECT_EQ(statistics.audio.output, SOUND_OUTPUT_DEVICE);
    EXPECT_EQ(statistics.lastFailure, 0);
    under.task->stop();
    statistics = under.task->getStatistics();
    EXPECT_EQ(statistics.video.track, -1);
    EXPECT_EQ(statistics.video.packets, 0);
}

TEST_F(PlayTaskPipeline, RemembersTheLastFailure) {
    ASSERT_TRUE(under.task->loadFileAsync("/no/such/file", 0));
    ASSERT_TRUE(under.waitFor(EVENT_FAILED));
    EXPECT_EQ(under.task->getStatistics().lastFailure, ERROR_TYPE_STREAM);
    under.task->stop();
    EXPECT_EQ(under.task->getStatistics().lastFailure, ERROR_TYPE_STREAM);
}

}  // namespace
}  // namespace kelp::test
