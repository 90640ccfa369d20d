#include "playtask/pipeline_fixture.h"

#include <system_error>

#include "support/gate.h"
#include "support/sanitizers.h"

// Pipelines of which a part can't be built: a decoder that doesn't open, a thread that isn't to be had.

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(PlayTaskPipeline, GoesOnWithoutSoundThatDoesNotDecode) {
    load("av.mp4");
    PipelineFaults::failingMediaType = AVMEDIA_TYPE_AUDIO;
    LogCapture log;
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(log.count("[PlayTask]: play, failed open audio decoder\n"), 1);
    EXPECT_EQ(under.peer.audioDecode(), nullptr);
    EXPECT_EQ(under.peer.audioPlay(), nullptr);
    ASSERT_TRUE(under.waitFor(EVENT_COMPLETED));
    EXPECT_EQ(under.eventsOf(EVENT_FIRST_VIDEO_FRAME).size(), 1u);
    EXPECT_THAT(under.eventsOf(EVENT_FIRST_AUDIO_FRAME), IsEmpty());
    EXPECT_THAT(under.eventsOf(EVENT_FAILED), IsEmpty());
}

TEST_F(PlayTaskPipeline, GoesOnWithoutPicturesThatDoNotDecode) {
    load("av.mp4");
    PipelineFaults::failingMediaType = AVMEDIA_TYPE_VIDEO;
    LogCapture log;
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(log.count("[PlayTask]: play, failed open video decode thread\n"), 1);
    EXPECT_EQ(under.peer.videoDecode(), nullptr);
    EXPECT_EQ(under.peer.videoPlay(), nullptr);
    EXPECT_TRUE(under.waitFor(EVENT_FIRST_AUDIO_FRAME));
    EXPECT_THAT(under.eventsOf(EVENT_FIRST_VIDEO_FRAME), IsEmpty());
}

TEST_F(PlayTaskPipeline, DoesNotPlayWhatDoesNotDecodeAtAll) {
    load("av.mp4");
    PipelineFaults::failingMediaType = -1;
    LogCapture log;
    EXPECT_FALSE(under.task->play());
    EXPECT_THAT(only(linesOf(log), "[PlayTask]: play, "),
                ElementsAre(testing::StartsWith("[PlayTask]: play, streamInfo:"),
                            "[PlayTask]: play, failed open audio decoder\n",
                            "[PlayTask]: play, failed open video decode thread\n",
                            "[PlayTask]: play, has no video and audio thread\n"));
    EXPECT_FALSE(log.has("[StreamParser] startThread"));
    EXPECT_TRUE(under.task->stop());
    // The object is as good as new.
    PipelineFaults::failingMediaType = -2;
    load("video.mp4");
    EXPECT_TRUE(under.task->play());
    EXPECT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
}

// A decoder and its thread hold each other: a branch that fails must not leave the two behind.
TEST_F(PlayTaskPipeline, ClosesADecoderThatDidNotOpen) {
    load("av.mp4");
    PipelineFaults::failingMediaType = -1;
    LogCapture log;
    EXPECT_FALSE(under.task->play());
    EXPECT_EQ(log.count("[FFVideoDecoder]: close, "), 1);
    EXPECT_EQ(log.count("[FFAudioDecoder]: close\n"), 1);
    EXPECT_EQ(log.count("[FFVideoDecoder]: ~FFVideoDecoder\n"), 1);
}

TEST_F(PlayTaskPipeline, GoesOnWithPicturesIfTheSoundDecoderGetsNoThread) {
    load("av.mp4");
    LogCapture log;
    PipelineFaults::threadsUntilNone = 1;
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(log.count("[PlayTask]: play, failed start audio decode thread\n"), 1);
    EXPECT_EQ(log.count("[FFAudioDecoder]: close\n"), 1);
    EXPECT_EQ(under.peer.audioDecode(), nullptr);
    EXPECT_EQ(under.peer.audioPlay(), nullptr);
    EXPECT_TRUE(under.waitFor(EVENT_COMPLETED));
}

TEST_F(PlayTaskPipeline, GoesOnWithPicturesIfTheSoundGetsNoThread) {
    load("av.mp4");
    LogCapture log;
    PipelineFaults::threadsUntilNone = 2;
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(log.count("[PlayTask]: play, start audio play thread failed\n"), 1);
    EXPECT_NE(under.peer.audioDecode(), nullptr);
    EXPECT_EQ(under.peer.audioPlay(), nullptr);
    EXPECT_TRUE(under.waitFor(EVENT_FIRST_VIDEO_FRAME));
}

TEST_F(PlayTaskPipeline, GoesOnWithSoundIfTheDecoderOfPicturesGetsNoThread) {
    load("av.mp4");
    LogCapture log;
    PipelineFaults::threadsUntilNone = 3;
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(log.count("[PlayTask]: play, failed start video decode thread\n"), 1);
    EXPECT_EQ(log.count("[FFVideoDecoder]: ~FFVideoDecoder\n"), 1);
    EXPECT_EQ(under.peer.videoDecode(), nullptr);
    EXPECT_EQ(under.peer.videoPlay(), nullptr);
    EXPECT_TRUE(under.waitFor(EVENT_FIRST_AUDIO_FRAME));
}

TEST_F(PlayTaskPipeline, GoesOnWithSoundIfThePicturesGetNoThread) {
    load("av.mp4");
    LogCapture log;
    PipelineFaults::threadsUntilNone = 4;
    ASSERT_TRUE(under.task->play());
    EXPECT_EQ(log.count("[PlayTask]: play, start video play thread failed\n"), 1);
    EXPECT_NE(under.peer.videoDecode(), nullptr);
    EXPECT_EQ(under.peer.videoPlay(), nullptr);
    EXPECT_TRUE(under.waitFor(EVENT_FIRST_AUDIO_FRAME));
}

TEST_F(PlayTaskPipeline, FailsIfTheParserGetsNoThread) {
    load("av.mp4");
    PipelineFaults::threadsUntilNone = 5;
    EXPECT_FALSE(under.task->play());
    EXPECT_NE(under.peer.videoPlay(), nullptr);
    EXPECT_TRUE(under.task->stop());
    load("av.mp4");
    EXPECT_TRUE(under.task->play());
}

// The host gets what the standard library says of it, and nothing is left behind.
class PlayTaskWithoutThread : public PlayTaskPipeline, public testing::WithParamInterface<int> {};

TEST_P(PlayTaskWithoutThread, LetsTheReasonOutOfPlay) {
    load("av.mp4");
    LogCapture log;
    PipelineFaults::threadsUntilThrow = GetParam();
    try {
        under.task->play();
        ADD_FAILURE() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
    }
    EXPECT_EQ(PipelineFaults::threadsUntilThrow, 0);
    EXPECT_TRUE(under.task->stop());
    EXPECT_EQ(log.count("[FFAudioDecoder]: close\n"), 1);
    EXPECT_EQ(log.count("[FFVideoDecoder]: ~FFVideoDecoder\n"), GetParam() < 3 ? 0 : 1);
    load("av.mp4");
    EXPECT_TRUE(under.task->play());
    EXPECT_TRUE(under.waitFor(EVENT_COMPLETED));
}

// The threads of a playback: sound's decoder, sound, the pictures' decoder, pictures, the parser.
INSTANTIATE_TEST_SUITE_P(, PlayTaskWithoutThread, testing::Range(1, 6));

TEST_F(PlayTaskPipeline, LetsTheReasonOutOfALoadWithoutAThread) {
    PipelineFaults::threadsUntilThrow = 1;
    EXPECT_THROW(under.task->loadFileAsync(smallMedia("av.mp4"), 0), std::system_error);
    EXPECT_TRUE(under.task->stop());
    EXPECT_THAT(under.events(), IsEmpty());
    load("av.mp4");
    EXPECT_TRUE(under.task->play());
}

// The thread that opens the source can't wait for its own end.
TEST_F(PlayTaskPipeline, RefusesAStopFromTheThreadOfItsLoad) {
    if (KELP_THREAD_SANITIZER) {
        GTEST_SKIP() << "the thread sanitizer doesn't stand a thread that joins itself";
    }
    const auto worker = std::make_shared<Worker>();
    worker->start();
    const auto task = std::make_shared<PlayTask>();
    std::error_code code;
    std::atomic<bool> tried = false;
    Gate begun;
    task->init(
        [&](EventType type, int, int, int) {
            if (type != EVENT_PREPARED) {
                return;
            }
            begun.wait();  // a stop is not for the time before loadFileAsync has returned
            try {
                task->stop();
            } catch (const std::system_error& error) {
                code = error.code();
            }
            tried = true;
        },
        worker);
    ASSERT_TRUE(task->loadFileAsync(smallMedia("av.mp4"), 0));
    begun.open();
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return tried.load(); }));
    EXPECT_EQ(code, std::errc::resource_deadlock_would_occur);
    EXPECT_TRUE(task->stop());  // another thread may
    worker->close();
}

TEST_F(PlayTaskPipeline, FailsIfTheParserDoesNotStart) {
    load("av.mp4");
    under.peer.parser()->requestStop();
    EXPECT_FALSE(under.task->play());
    // Built and idle until the stop.
    EXPECT_NE(under.peer.videoPlay(), nullptr);
    EXPECT_TRUE(under.task->stop());
    load("av.mp4");
    EXPECT_TRUE(under.task->play());
}

}  // namespace
}  // namespace kelp::test
