#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "clock/exact_clock.h"
#include "playtask/play_task_peer.h"
#include "support/fake_time.h"

// Which clock is the master, and who follows it. The play threads here don't run.

namespace kelp::test {
namespace {

class FixedClock : public SyncObject {
public:
    int64_t getNoSyncThreshold() override { return 1; }
    bool isForceSync() override { return false; }
    int64_t getSyncPts() override { return 2; }
    void setSyncObject(std::shared_ptr<SyncObject>) override {}
};

class PlayTaskClocks : public testing::Test {
protected:
    void SetUp() override { FakeTime::reset(); }

    void addVideo() { under.peer.set(video = std::make_shared<VideoPlayThread>(false, nullptr)); }
    void addAudio() { under.peer.set(audio = std::make_shared<AudioPlayThread>()); }

    std::shared_ptr<SyncObject> followedByVideo() { return VideoPlayThreadPeer::followed(*video); }
    std::shared_ptr<SyncObject> followedByAudio() { return AudioPlayThreadPeer::followed(*audio); }

    TaskUnderTest under;
    std::shared_ptr<VideoPlayThread> video;
    std::shared_ptr<AudioPlayThread> audio;
    std::shared_ptr<FixedClock> clock = std::make_shared<FixedClock>();
};

TEST_F(PlayTaskClocks, TurnTheWantedModeIntoOneThatCanBeHad) {
    struct Row {
        int wanted;
        bool hasVideo;
        bool hasAudio;
        int effective;
    };
    const Row rows[] = {
        {2, true, false, 2}, {2, true, true, 2},   {2, false, true, 1},  {2, false, false, 1}, {1, false, true, 1},
        {1, true, true, 1},  {1, true, false, 0},  {1, false, false, 0}, {0, true, true, 0},   {0, true, false, 0},
        {0, false, true, 0}, {0, false, false, 0}, {3, true, true, 0},   {-1, true, true, 0},  {100, true, true, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.wanted << row.hasVideo << row.hasAudio);
        under.peer.set(row.hasVideo ? std::make_shared<VideoPlayThread>(false, nullptr) : nullptr);
        under.peer.set(row.hasAudio ? std::make_shared<AudioPlayThread>() : nullptr);
        under.task->setSyncMasterMode(static_cast<SyncMasterMode>(row.wanted));
        EXPECT_EQ(under.peer.effectiveMode(), row.effective);
    }
}

TEST_F(PlayTaskClocks, GiveTheClockToBothInModeZero) {
    addVideo();
    addAudio();
    under.task->setExternSyncClock(clock);
    EXPECT_EQ(followedByVideo(), clock);
    EXPECT_EQ(followedByAudio(), clock);
    EXPECT_EQ(under.peer.master(), clock);
}

TEST_F(PlayTaskClocks, LetVideoFollowAudioInModeOne) {
    addVideo();
    addAudio();
    under.task->setSyncMasterMode(SYNC_MASTER_AUDIO);
    EXPECT_EQ(followedByVideo(), audio);
    EXPECT_EQ(followedByAudio(), nullptr);
    // Shared with the thread, not a copy of anything.
    EXPECT_EQ(under.peer.master().get(), static_cast<SyncObject*>(audio.get()));
}

TEST_F(PlayTaskClocks, LetAudioFollowVideoInModeTwo) {
    addVideo();
    addAudio();
    under.task->setSyncMasterMode(SYNC_MASTER_VIDEO);
    EXPECT_EQ(followedByAudio(), video);
    EXPECT_EQ(followedByVideo(), nullptr);
}

// Whatever mode is wanted; a host's clock alone has the say over what is shown at once.
TEST_F(PlayTaskClocks, LetThePicturesLeadWithALowDelayButForAHostsClock) {
    under.peer.setLowDelay();
    addVideo();
    addAudio();
    for (const auto mode : {SYNC_MASTER_CLOCK, SYNC_MASTER_AUDIO, SYNC_MASTER_VIDEO}) {
        under.task->setSyncMasterMode(mode);
        EXPECT_EQ(followedByVideo(), nullptr);
        EXPECT_EQ(followedByAudio(), video);
    }
    under.task->setExternSyncClock(clock);
    EXPECT_EQ(followedByVideo(), nullptr) << "the pictures are wanted for the master";
    under.task->setSyncMasterMode(SYNC_MASTER_CLOCK);
    EXPECT_EQ(followedByVideo(), clock);
    EXPECT_EQ(followedByAudio(), clock);
    under.task->setExternSyncClock(nullptr);
    EXPECT_EQ(followedByVideo(), nullptr);
    EXPECT_EQ(followedByAudio(), video);
}

TEST_F(PlayTaskClocks, LetSoundAloneFollowNobodyWithALowDelay) {
    under.peer.setLowDelay();
    addAudio();
    under.task->setSyncMasterMode(SYNC_MASTER_CLOCK);
    EXPECT_EQ(followedByAudio(), nullptr);
}

TEST_F(PlayTaskClocks, LeaveAMasterItsFormerMaster) {
    addVideo();
    addAudio();
    under.task->setExternSyncClock(clock);
    under.task->setSyncMasterMode(SYNC_MASTER_AUDIO);
    EXPECT_EQ(followedByAudio(), clock);
    EXPECT_EQ(followedByVideo(), audio);
    under.task->setSyncMasterMode(SYNC_MASTER_VIDEO);
    EXPECT_EQ(followedByAudio(), video);
    EXPECT_EQ(followedByVideo(), audio);
    under.task->setSyncMasterMode(SYNC_MASTER_CLOCK);
    EXPECT_EQ(followedByAudio(), clock);
    EXPECT_EQ(followedByVideo(), clock);
}

TEST_F(PlayTaskClocks, GiveAudioAloneNoMasterInModesOneAndTwo) {
    for (const auto mode : {SYNC_MASTER_AUDIO, SYNC_MASTER_VIDEO}) {
        addAudio();
        under.task->setSyncMasterMode(mode);
        under.task->setExternSyncClock(clock);
        EXPECT_EQ(followedByAudio(), nullptr);
        EXPECT_EQ(under.peer.master(), audio);
    }
    under.task->setSyncMasterMode(SYNC_MASTER_CLOCK);
    EXPECT_EQ(followedByAudio(), clock);
}

TEST_F(PlayTaskClocks, GiveVideoAloneTheClockInModeOneAndNoMasterInModeTwo) {
    addVideo();
    under.task->setSyncMasterMode(SYNC_MASTER_VIDEO);
    under.task->setExternSyncClock(clock);
    EXPECT_EQ(followedByVideo(), nullptr);
    under.task->setSyncMasterMode(SYNC_MASTER_AUDIO);
    EXPECT_EQ(followedByVideo(), clock);
}

TEST_F(PlayTaskClocks, HaveNoMasterInModeTwoWithoutStreams) {
    under.task->setExternSyncClock(clock);
    under.task->setSyncMasterMode(SYNC_MASTER_VIDEO);
    EXPECT_EQ(under.peer.effectiveMode(), SYNC_MASTER_AUDIO);
    EXPECT_EQ(under.peer.master(), nullptr);
}

TEST_F(PlayTaskClocks, OnlyStoreTheHostsClockBeforePlay) {
    under.task->setExternSyncClock(clock);
    EXPECT_EQ(under.peer.syncObject(), clock);
    under.task->setExternSyncClock(nullptr);
    EXPECT_EQ(under.peer.syncObject(), nullptr);
}

TEST_F(PlayTaskClocks, ReturnToTheClockOfThisRun) {
    addVideo();
    addAudio();
    const auto own = std::make_shared<MasterClock>();
    under.peer.set(own);
    under.task->setExternSyncClock(clock);
    under.task->setExternSyncClock(nullptr);
    EXPECT_EQ(followedByVideo(), own);
    EXPECT_EQ(followedByAudio(), own);
    EXPECT_EQ(under.peer.syncObject(), own);
}

TEST_F(PlayTaskClocks, StandStillOverAPause) {
    const auto own = std::make_shared<MasterClock>();
    under.peer.set(own);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(own->getSyncPts(), 1000);
    EXPECT_TRUE(under.task->pause());
    FakeTime::advanceMs(500);
    EXPECT_EQ(own->getSyncPts(), 1500);
    EXPECT_TRUE(under.task->resume());
    EXPECT_EQ(own->getSyncPts(), 1000);
    // No state is kept: without a pause the clock jumps to what was kept last, and a second pause keeps anew.
    FakeTime::advanceMs(300);
    under.task->resume();
    EXPECT_EQ(own->getSyncPts(), 1000);
    FakeTime::advanceMs(100);
    under.task->pause();
    FakeTime::advanceMs(100);
    under.task->pause();
    FakeTime::advanceMs(1000);
    under.task->resume();
    EXPECT_EQ(own->getSyncPts(), 1200);
}

TEST_F(PlayTaskClocks, RunAtThePlayersSpeedIfTheyAreExact) {
    const auto own = std::make_shared<ExactClock>(1);
    under.peer.set(std::shared_ptr<MasterClock>(own));
    FakeTime::advanceMs(1000);
    under.task->setSpeed(2);
    FakeTime::advanceMs(1000);
    EXPECT_EQ(own->getSyncPts(), 3000);
    under.task->pause();
    under.fromVideoPlay().onFirstVideoFrame(7000);  // of a seek
    FakeTime::advanceMs(1000);
    EXPECT_EQ(own->getSyncPts(), 7000);
    under.task->resume();
    FakeTime::advanceMs(1000);
    EXPECT_EQ(own->getSyncPts(), 9000);
}

TEST_F(PlayTaskClocks, PauseAndResumeWithoutAPlayback) {
    EXPECT_TRUE(under.task->pause());
    EXPECT_TRUE(under.task->resume());
}

// Takes its time over the first master that it is given, unless another one comes meanwhile.
class SlowFollower : public VideoPlayThread {
public:
    SlowFollower() : VideoPlayThread(false, nullptr) {}
    void setSyncObject(std::shared_ptr<SyncObject> master) override {
        if (++given == 1) {
            TaskUnderTest::waitUntil([&] { return taken == 1; }, 50);
        }
        VideoPlayThread::setSyncObject(std::move(master));
        ++taken;
    }
    std::atomic<int> given{0};
    std::atomic<int> taken{0};
};

// Two settings at the same moment must not leave anybody with the older one.
TEST_F(PlayTaskClocks, SettleOnTheLastSettingOfTwoThreads) {
    const auto slow = std::make_shared<SlowFollower>();
    under.task->setSyncMasterMode(SYNC_MASTER_AUDIO);
    addAudio();
    under.peer.set(std::shared_ptr<VideoPlayThread>(slow));
    std::thread first([&] { under.task->setExternSyncClock(clock); });  // video is to follow audio
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return slow->given == 1; }));
    under.task->setSyncMasterMode(SYNC_MASTER_CLOCK);  // and now the clock
    first.join();
    EXPECT_EQ(VideoPlayThreadPeer::followed(*slow), clock);
    EXPECT_EQ(followedByAudio(), clock);
}

// Sound that takes its time over its master, unless the playback has been stopped meanwhile.
class SlowSound : public AudioPlayThread {
public:
    void setSyncObject(std::shared_ptr<SyncObject> master) override {
        if (master) {
            asked = true;
            TaskUnderTest::waitUntil([&] { return stopped.load(); }, 50);
        }
        AudioPlayThread::setSyncObject(std::move(master));
    }
    std::atomic<bool> asked{false};
    std::atomic<bool> stopped{false};
};

// Sound and picture that follow each other would keep each other for good.
TEST_F(PlayTaskClocks, LetGoOfEachOtherAtAStopWhateverIsSetMeanwhile) {
    addVideo();
    auto slow = std::make_shared<SlowSound>();
    under.peer.set(std::shared_ptr<AudioPlayThread>(slow));
    under.task->setSyncMasterMode(SYNC_MASTER_AUDIO);
    EXPECT_EQ(followedByVideo(), slow);
    std::thread host([&] { under.task->setSyncMasterMode(SYNC_MASTER_VIDEO); });
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return slow->asked.load(); }));
    under.task->stop();
    slow->stopped = true;
    host.join();
    const std::weak_ptr<VideoPlayThread> oldVideo = std::exchange(video, nullptr);
    const std::weak_ptr<AudioPlayThread> oldAudio = std::exchange(slow, nullptr);
    EXPECT_TRUE(oldVideo.expired());
    EXPECT_TRUE(oldAudio.expired());
}

// Whoever still holds one of them holds it alone.
TEST_F(PlayTaskClocks, LetGoOfTheirMastersAtAStop) {
    for (const auto mode : {SYNC_MASTER_CLOCK, SYNC_MASTER_AUDIO, SYNC_MASTER_VIDEO}) {
        addVideo();
        addAudio();
        under.task->setExternSyncClock(std::make_shared<MasterClock>());
        under.task->setSyncMasterMode(mode);
        EXPECT_TRUE(followedByVideo() || followedByAudio()) << mode;
        under.task->stop();
        EXPECT_EQ(followedByVideo(), nullptr) << mode;
        EXPECT_EQ(followedByAudio(), nullptr) << mode;
    }
}

// The master is chosen among the threads that there are, and they go one by one.
TEST_F(PlayTaskClocks, MakeNobodyItsOwnMaster) {
    LogCapture quiet(-1);
    for (int i = 0; i < 300; ++i) {
        addVideo();
        addAudio();
        std::atomic<bool> began{false};
        std::atomic<bool> stopped{false};
        std::thread host([&] {
            while (!stopped) {
                under.task->setSyncMasterMode(SYNC_MASTER_VIDEO);
                began = true;
            }
        });
        while (!began) {
            std::this_thread::yield();
        }
        under.task->stop();
        stopped = true;
        host.join();
        ASSERT_NE(followedByAudio(), audio);
        ASSERT_EQ(followedByAudio(), nullptr);
        ASSERT_EQ(followedByVideo(), nullptr);
    }
}

}  // namespace
}  // namespace kelp::test
