#include <gmock/gmock.h>

#include "playtask/pipeline_fixture.h"

// Volume, mute and device from one playback to the next.

namespace kelp::test {
namespace {

class PlayTaskSound : public PlayTaskPipeline {
protected:
    void play() {
        load("audio.mp4");
        ASSERT_TRUE(under.task->play());
        ASSERT_NE(under.peer.audioPlay(), nullptr);
    }
    float volume() { return under.peer.audioPlay()->volume(); }
};

TEST_F(PlayTaskSound, KeepsTheVolumeOverARestartAndNotOverAStop) {
    play();
    under.task->setVolume(0.5F);
    under.task->stopForRestart();
    under.task->stopForRestart();  // as after a restart that failed
    play();
    EXPECT_EQ(volume(), 0.5F);
    under.task->stop();
    play();
    EXPECT_EQ(volume(), 1.0F);
}

TEST_F(PlayTaskSound, StaysMutedFromOnePlaybackToTheNext) {
    EXPECT_FALSE(under.task->isMuted());
    under.task->setMute(true);
    for (int playback = 0; playback < 2; ++playback) {
        play();
        EXPECT_TRUE(under.task->isMuted());
        EXPECT_TRUE(under.peer.audioPlay()->isMuted());
        under.task->stop();
    }
    play();
    under.task->setMute(false);
    EXPECT_FALSE(under.peer.audioPlay()->isMuted());
}

// The test's driver has one device, and takes no other name.
TEST_F(PlayTaskSound, KeepsTheDeviceWhereTheWantedOneCantBeOpened) {
    play();
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return under.task->setVolume(1); })) << "there is an output";
    LogCapture log(2);
    under.task->changeOptions([](PlaybackOptions& options) { options.audioDevice = "no such device"; });
    EXPECT_EQ(log.count("[SDLAudioOutput]: the sound device \"no such device\" can't be opened: No such device, "
                        "going on as before\n"),
              1)
        << testing::PrintToString(log.lines());
    EXPECT_EQ(under.peer.options().audioDevice, "");
}

TEST_F(PlayTaskSound, WantsTheDeviceThatWasChosenOutOfPlayback) {
    under.task->changeOptions([](PlaybackOptions& options) { options.audioDevice = "a device"; });
    EXPECT_EQ(under.peer.options().audioDevice, "a device");
}

TEST_F(PlayTaskSound, TriesADeviceAgainThatIsChosenAgain) {
    const auto choose = [](PlaybackOptions& options) { options.audioDevice = "no such device"; };
    under.task->changeOptions(choose);
    LogCapture log(2);
    play();
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return under.task->setVolume(1); })) << "there is an output";
    const std::string line =
        "[SDLAudioOutput]: the sound device \"no such device\" can't be opened: No such device, going on as before\n";
    under.task->changeOptions(choose);
    EXPECT_EQ(log.count(line), 0) << "the name stays, as with any other option";
    under.task->changeOptions(choose, PlayTask::SoundDevice::Chosen);
    EXPECT_EQ(log.count(line), 1) << testing::PrintToString(log.lines());
    EXPECT_EQ(under.peer.options().audioDevice, "no such device");
}

}  // namespace
}  // namespace kelp::test
