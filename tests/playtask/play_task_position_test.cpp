#include <gmock/gmock.h>

#include "decode/video_frame_info.h"
#include "playtask/play_task_peer.h"
#include "support/fake_time.h"

// Where playback is, as the host is told, where pictures are missing: the sound's time. The stages here don't run.

namespace kelp::test {
namespace {

class PlayTaskPosition : public testing::Test {
protected:
    void SetUp() override {
        FakeTime::reset(kStart);
        under.peer.setSeekable(true, 60000);
        addPictures();
        video->takeOddStreams(0);
        under.peer.set(audio);
    }

    void addPictures() { under.peer.set(video = std::make_shared<VideoPlayThread>(false, nullptr)); }
    // Playback has come to `nowMs`: that is heard, and the picture at `pictureMs` has come when it was due.
    int position(int64_t nowMs, int64_t pictureMs) {
        FakeTime::setNowMs(kStart + pictureMs);
        VideoPlayThreadPeer::show(*video, pictureMs);
        FakeTime::setNowMs(kStart + nowMs);
        AudioPlayThreadPeer::setCurrentPts(*audio, nowMs);
        return under.task->getCurrentTime();
    }
    // A picture waits for its time.
    void queuePicture(int64_t pts) {
        const auto picture = std::make_shared<VideoFrameInfo>();
        picture->pts = pts;
        video->fillFrame(picture);
    }
    void endSeekAt(int timeMs) {
        under.fromParser().onSeekStart(timeMs);
        under.fromVideoDecode().onVideoDecodeSeek(timeMs, true);
        under.fromVideoPlay().onFirstVideoFrame(timeMs);
    }

    static constexpr int64_t kStart = 1'000'000;

    TaskUnderTest under;
    std::shared_ptr<VideoPlayThread> video;
    std::shared_ptr<AudioPlayThread> audio = std::make_shared<AudioPlayThread>();
};

TEST_F(PlayTaskPosition, IsThePicturesWhileTheyCome) {
    EXPECT_EQ(position(1039, 1000), 1000);
    EXPECT_EQ(position(1499, 1000), 1000);
    EXPECT_EQ(position(1510, 1480), 1480);
}

TEST_F(PlayTaskPosition, IsTheSoundsBehindTheLastPicture) {
    EXPECT_EQ(position(1500, 1000), 1500);
    EXPECT_EQ(position(30000, 1000), 30000);
    video->setMaxPtsMs(31000);
    EXPECT_EQ(position(31020, 31000), 31020) << "it is known for the last one";
}

TEST_F(PlayTaskPosition, StaysWhenALatePictureComes) {
    EXPECT_EQ(position(2000, 1000), 2000);
    queuePicture(1240);
    EXPECT_EQ(position(2010, 1200), 2010);
    EXPECT_EQ(position(2030, 1240), 2030);
    EXPECT_EQ(position(2041, 2040), 2040) << "the pictures have caught up";
    EXPECT_EQ(position(2079, 2040), 2040);
    EXPECT_EQ(position(2081, 2080), 2080);
}

TEST_F(PlayTaskPosition, GoesOnWhileAPictureWaitsForItsTime) {
    EXPECT_EQ(position(5800, 0), 5800);
    queuePicture(10000);
    EXPECT_EQ(position(5840, 0), 5840);
    EXPECT_EQ(position(9999, 0), 9999);
    EXPECT_EQ(position(10010, 10000), 10000);
}

TEST_F(PlayTaskPosition, IsThePicturesBehindASeek) {
    EXPECT_EQ(position(30000, 1000), 30000);
    ASSERT_TRUE(under.task->seek(20000));
    endSeekAt(20000);
    queuePicture(20040);
    VideoPlayThreadPeer::show(*video, 20000);
    EXPECT_EQ(under.task->getCurrentTime(), 20000) << "and the sound isn't there yet";
}

TEST_F(PlayTaskPosition, IsThePicturesInSteps) {
    EXPECT_EQ(position(30000, 1000), 30000);
    under.task->pause();
    ASSERT_TRUE(under.task->stepFrame(-1));
    EXPECT_EQ(under.task->getCurrentTime(), 1000);
    EXPECT_EQ(position(30000, 960), 960);
    video->setMaxPtsMs(1000);
    EXPECT_EQ(position(30000, 1000), 1000) << "the last one again";
}

TEST_F(PlayTaskPosition, GoesBackWithTheSound) {
    EXPECT_EQ(position(30000, 1000), 30000);
    queuePicture(40);
    EXPECT_EQ(position(20, 0), 20) << "the input's times have begun anew";
    EXPECT_EQ(position(41, 40), 40);
}

TEST_F(PlayTaskPosition, IsThePicturesInTheNextPlayback) {
    EXPECT_EQ(position(30000, 1000), 30000);
    under.task->stop();
    addPictures();
    under.peer.set(audio);
    EXPECT_EQ(position(30, 0), 0);
}

TEST_F(PlayTaskPosition, IsAlwaysThePicturesWhereNothingIsSaid) {
    addPictures();
    video->setMaxPtsMs(1000);
    EXPECT_EQ(position(30000, 1000), 1000);
}

}  // namespace
}  // namespace kelp::test
