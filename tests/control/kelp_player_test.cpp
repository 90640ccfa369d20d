// A player as a host drives it: its events, callables, options, tracks and the clock that it follows.

#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "control/kelp_player_fixture.h"
#include "kelp_player/log.h"
#include "support/log_capture.h"

extern "C" {
#include <libavutil/log.h>
}

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class HostClock : public KelpSyncClock {
public:
    explicit HostClock(int64_t pts) : pts_(pts) {}
    int64_t getNoSyncThreshold() override { return 1; }
    bool isForceSync() override { return false; }
    int64_t getSyncPts() override {
        ++readings;
        return pts_;
    }

    std::atomic<int> readings{0};

private:
    int64_t pts_;
};

TEST_F(KelpPlayerTest, PlaysAFileWithAllItsEvents) {
    init();
    recorder.then = [](const auto& owner, const std::string& event) {
        if (event == "prepared 1 1") {
            EXPECT_TRUE(owner->play());
        }
    };
    EXPECT_TRUE(player->loadFileAsync(smallMedia("av.mp4").c_str(), 0));
    ASSERT_TRUE(waitUntil([&] { return recorder.has("completed"); }));

    // The file is short: its end is read about when its first frames are shown, by three threads.
    const auto events = recorder.events();
    ASSERT_EQ(events.size(), 7u);
    const std::string duration = "duration " + std::to_string(player->getDuration());
    EXPECT_EQ(events[0], "size 64 48 0");
    EXPECT_EQ(events[1], "prepared 1 1");
    EXPECT_THAT(std::vector<std::string>(events.begin() + 2, events.begin() + 6),
                testing::UnorderedElementsAre(testing::StartsWith("packet "), "video 0", "audio 0", duration));
    EXPECT_EQ(events[6], "completed");
    EXPECT_EQ(recorder.threads(), 1u);
    EXPECT_THAT(recorder.players(), ElementsAre(player.get()));
    EXPECT_EQ(player->getPlayDetailInfo(INFO_DURATION), player->getDuration());
    EXPECT_EQ(player->getPlayDetailInfo(INFO_WIDTH), 64);
    EXPECT_EQ(player->getPlayDetailInfo(INFO_HEIGHT), 48);
    EXPECT_EQ(player->getPlayDetailInfo(INFO_ROTATE), 0);
    EXPECT_EQ(player->getPlayDetailInfo(INFO_FPS), 25);
    EXPECT_EQ(player->getPlayDetailInfo(static_cast<KelpPlayerInfoType>(5)), 0);
    EXPECT_EQ(player->getPlayDetailInfo(static_cast<KelpPlayerInfoType>(-1)), 0);
    EXPECT_GT(player->getCurrentTime(), 1000);
}

TEST_F(KelpPlayerTest, ReportsASourceThatDoesNotOpen) {
    init();
    EXPECT_FALSE(player->loadFileAsync("", 0));
    {
        LogCapture log;
        EXPECT_FALSE(player->loadFileAsync(nullptr, 0));
        EXPECT_EQ(log.count("[KelpPlayer]: loadFileAsync, no file name\n"), 1);
    }
    EXPECT_TRUE(player->loadFileAsync("/nowhere/at/all.mp4", 0));
    ASSERT_TRUE(waitUntil([&] { return recorder.has("failed"); }));
    EXPECT_THAT(recorder.events(), ElementsAre("failed 1 0"));
}

TEST_F(KelpPlayerTest, TakesCommandsFromItsObserver) {
    init();
    std::atomic<int> completed{0};
    recorder.then = [&](const auto& owner, const std::string& event) {
        if (event.rfind("prepared", 0) == 0) {
            owner->play();
        } else if (event.rfind("video", 0) == 0 && completed++ == 0) {
            EXPECT_TRUE(owner->pause());
            EXPECT_TRUE(owner->resume());
            EXPECT_TRUE(owner->stop());
            EXPECT_TRUE(owner->loadFileAsync(smallMedia("video.mp4").c_str(), 0));
        }
    };
    player->loadFileAsync(smallMedia("av.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("completed"); }));
    EXPECT_EQ(completed, 2);
}

TEST_F(KelpPlayerTest, ServesOneObserverForManyPlayers) {
    init();
    const auto second = std::make_shared<KelpPlayer>();
    ASSERT_TRUE(second->init(&recorder));
    second->loadFileAsync(smallMedia("audio.mp4").c_str(), 0);
    player->loadFileAsync(smallMedia("video.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared 1 0") && recorder.has("prepared 0 1"); }));
    EXPECT_EQ(recorder.players(), (std::set<KelpPlayer*>{player.get(), second.get()}));
    EXPECT_EQ(recorder.threads(), 2u);
    second->stop();
}

TEST_F(KelpPlayerTest, CarriesEveryEventToItsOperation) {
    init();
    raise(EVENT_VIDEO_SIZE_UPDATED, 1, 2, 3);
    raise(EVENT_PREPARED, 7, 0, 9);
    raise(EVENT_PREPARED, 0, -1, 9);
    raise(EVENT_FAILED, 4, 5, 6);
    raise(EVENT_FIRST_PACKET, 10, 11, 12);
    raise(EVENT_FIRST_VIDEO_FRAME, 13, 0, 0);
    raise(EVENT_FIRST_AUDIO_FRAME, -14, 0, 0);
    raise(8, 1, 2, 3);
    raise(-1, 1, 2, 3);
    raise(EVENT_COMPLETED, 1, 2, 3);
    raise(EVENT_DURATION_UPDATED, 15, 0, 0);
    drain();
    EXPECT_THAT(recorder.events(), ElementsAre("size 1 2 3", "prepared 1 0", "prepared 0 1", "failed 4 5", "packet 10",
                                               "video 13", "audio -14", "completed", "duration 15"));
}

TEST_F(KelpPlayerTest, KeepsEventsCallablesAndTimersInOrder) {
    init();
    std::vector<std::string> order;
    recorder.then = [&](const auto&, const std::string& event) { order.push_back(event); };
    raise(EVENT_FIRST_PACKET, 1, 0, 0);
    player->runInWorker([&] { order.push_back("callable"); });
    raise(EVENT_FIRST_PACKET, 2, 0, 0);
    drain();
    EXPECT_THAT(order, ElementsAre("packet 1", "callable", "packet 2"));
}

TEST_F(KelpPlayerTest, RunsTimers) {
    init();
    std::atomic<int> once{0};
    std::atomic<int> often{0};
    const auto rare = player->addTimer(1000000, /*oneShot=*/false, [&] { once = 100; });
    const auto quick = player->addTimer(1, /*oneShot=*/false, [&] { ++often; });
    const auto single = player->addTimer(1, /*oneShot=*/true, [&] { ++once; });
    EXPECT_EQ(rare, 1u);
    EXPECT_EQ(quick, 2u);
    EXPECT_EQ(single, 3u);
    ASSERT_TRUE(waitUntil([&] { return often >= 3 && once > 0; }));
    EXPECT_EQ(once, 1);
    player->removeTimer(quick);
    player->removeTimer(rare);
    player->removeTimer(0);
    // What it had queued by then still runs, and nothing comes behind that.
    drain();
    const int until = often;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // nothing to wait for: it must not come
    EXPECT_EQ(often, until);
    EXPECT_EQ(once, 1);
}

TEST_F(KelpPlayerTest, DropsEventsWithoutAnObserver) {
    ASSERT_TRUE(player->init(nullptr));
    raise(EVENT_COMPLETED, 0, 0, 0);
    drain();
}

TEST_F(KelpPlayerTest, SetsTheLogLevelsOfTheProcess) {
    struct Row {
        const char* word;
        int ffmpeg;
        int engine;
    };
    const Row rows[] = {{"trace", 56, 4},   {"debug", 48, 4}, {"info", 32, 3},
                        {"warning", 24, 2}, {"error", 16, 1}, {"none", -8, -1}};
    const int oldFfmpeg = av_log_get_level();
    const int oldEngine = Log::GetLevel();
    for (const auto& row : rows) {
        av_log_set_level(7);
        Log::SetLevel(7);
        player->setOption("log_level", row.word);
        EXPECT_EQ(av_log_get_level(), row.ffmpeg) << row.word;
        EXPECT_EQ(Log::GetLevel(), row.engine) << row.word;
    }
    for (const char* word : {"", "Info", "info ", "inf", "warn", "quiet", "3"}) {
        av_log_set_level(7);
        Log::SetLevel(7);
        player->setOption("log_level", word);
        EXPECT_EQ(av_log_get_level(), 7) << word;
        EXPECT_EQ(Log::GetLevel(), 7) << word;
    }
    av_log_set_level(oldFfmpeg);
    Log::SetLevel(oldEngine);
}

TEST_F(KelpPlayerTest, HandsOtherOptionsToTheDemuxerAfterInit) {
    player->setOption("max_delay", "1");
    player->setOption("user_agent", "early");
    player->setOption(nullptr, "x");
    player->setOption("x", nullptr);
    init();
    player->setOption("reorder_queue_size", "42");
    player->setOption("no such option", "x");
    LogCapture log;
    player->loadFileAsync(smallMedia("audio.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    std::vector<std::string> set;
    for (const auto& line : log.lines()) {
        if (line.find("open, set key:") != std::string::npos) {
            set.push_back(line.substr(line.find("key:")));
        }
    }
    EXPECT_THAT(set, ElementsAre("key:buffer_size, value:-1\n", "key:max_delay, value:1000000\n",
                                 "key:no such option, value:x\n", "key:reorder_queue_size, value:42\n",
                                 "key:rtsp_transport, value:tcp\n", "key:stimeout, value:500000\n"));
}

TEST_F(KelpPlayerTest, ReadsItsOwnOptionsAtAnyTimeAndKeepsThem) {
    player->setOption("pictures", "shared");
    init();
    PlayTaskPeer peer(*task());
    EXPECT_TRUE(peer.options().sharedPictures);
    player->stop();
    EXPECT_TRUE(peer.options().sharedPictures);
    player->setOption("pictures", "packed");
    EXPECT_FALSE(peer.options().sharedPictures);
}

TEST_F(KelpPlayerTest, ListsTheTracksFromTheLoadToTheStop) {
    init();
    EXPECT_TRUE(player->getTracks().empty());
    std::vector<Track> inPrepared;
    recorder.then = [&](const auto& owner, const std::string&) { inPrepared = owner->getTracks(); };
    player->loadFileAsync(smallMedia("foreign.mkv").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared 1 1"); }));
    drain();
    ASSERT_EQ(inPrepared.size(), 2u);
    EXPECT_EQ(inPrepared[0].codec, "ffv1");
    EXPECT_FALSE(inPrepared[0].isPlayable);
    EXPECT_FALSE(inPrepared[0].isPlayed);
    EXPECT_EQ(inPrepared[1].codec, "aac");
    EXPECT_TRUE(inPrepared[1].isPlayed);
    player->stop();
    EXPECT_TRUE(player->getTracks().empty());
}

TEST_F(KelpPlayerTest, PlaysTheTracksThatTheHostWants) {
    init();
    player->setOption("video_track", "none");
    player->loadFileAsync(smallMedia("av.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    EXPECT_TRUE(player->play());
    ASSERT_TRUE(waitUntil([&] { return recorder.has("completed"); }));
    EXPECT_EQ(recorder.events().front(), "prepared 0 1");
    EXPECT_FALSE(recorder.has("video"));
    player->stop();
    player->setOption("audio_track", "none");
    player->loadFileAsync(smallMedia("av.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("failed 1 0"); }));
}

TEST_F(KelpPlayerTest, KeepsItsOwnOptionsFromTheDemuxer) {
    init();
    player->setOption("pictures", "shared");
    player->setOption("pictures", "shard");
    LogCapture log;
    player->loadFileAsync(smallMedia("audio.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    EXPECT_TRUE(log.has("open, set key:"));
    EXPECT_FALSE(log.has("open, set key:pictures"));
}

TEST_F(KelpPlayerTest, NamesTheValuesThatAnOptionHasIfItIsGivenAnother) {
    init();
    player->setOption("pictures", "shared");
    LogCapture log;
    player->setOption("pictures", "shard");
    EXPECT_THAT(linesOf(log),
                ElementsAre("[KelpPlayer]: setOption, pictures can't be \"shard\", there is: packed, shared\n"));
    EXPECT_TRUE(PlayTaskPeer(*task()).options().sharedPictures);
    player->setOption("pictures", nullptr);
    EXPECT_TRUE(PlayTaskPeer(*task()).options().sharedPictures);
}

TEST_F(KelpPlayerTest, FollowsTheHostsClockThroughOneWrapper) {
    init();
    HostClock first(5000);
    HostClock second(9000);
    PlayTaskPeer peer(*task());
    player->setExternSyncClock(&first, 1000);
    const auto wrapper = KelpPlayerPeer::wrapper(*player);
    EXPECT_EQ(peer.syncObject(), wrapper);
    EXPECT_EQ(peer.syncObject()->getSyncPts(), 4000);
    player->setExternSyncClock(&second, -1);
    EXPECT_EQ(peer.syncObject(), wrapper);
    EXPECT_EQ(peer.syncObject()->getSyncPts(), 9001);

    player->setExternSyncClock(nullptr, 0);
    EXPECT_EQ(peer.syncObject(), nullptr);            // before the first playback
    EXPECT_EQ(wrapper->getNoSyncThreshold(), 10000);  // and nobody asks the host's clock any more
}

TEST_F(KelpPlayerTest, CutsNothingOffWhatHas64Bits) {
    init();
    HostClock clock(0x1'0000'0000);
    PlayTaskPeer peer(*task());
    player->setExternSyncClock(&clock, std::numeric_limits<int>::min());
    EXPECT_EQ(peer.syncObject()->getSyncPts(), 0x1'8000'0000);
    player->setExternSyncClock(nullptr, 0);
    peer.setSeekable(true, 0x1'0000'0005);
    EXPECT_EQ(player->getPlayDetailInfo(INFO_DURATION), 0x1'0000'0005);
}

// Sound that was made the master goes on following whom it followed, and the host ends its clock all the same.
TEST_F(KelpPlayerTest, LetsTheHostEndAClockThatItTookBack) {
    init();
    auto clock = std::make_unique<HostClock>(5000);
    player->setExternSyncClock(clock.get(), 0);
    player->loadFileAsync(smallMedia("long.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    ASSERT_TRUE(player->play());
    player->setAVSyncMode(SYNC_MASTER_AUDIO);
    PlayTaskPeer peer(*task());
    const auto followed = AudioPlayThreadPeer::followed(*peer.audioPlay());
    EXPECT_EQ(followed, KelpPlayerPeer::wrapper(*player));
    player->setExternSyncClock(nullptr, 0);
    clock.reset();
    EXPECT_EQ(AudioPlayThreadPeer::followed(*peer.audioPlay()), followed);
    // No threshold reaches that far, so that the sound plays as if it followed nobody.
    EXPECT_LT(followed->getSyncPts(), std::numeric_limits<int64_t>::min() / 4);
    EXPECT_FALSE(followed->isForceSync());
    EXPECT_TRUE(waitUntil([&] { return player->getCurrentTime() > 200; }));
}

// Set once, for all that is played.
TEST_F(KelpPlayerTest, ReadsTheHostsClockAgainAfterAStop) {
    init();
    HostClock clock(0);
    player->setExternSyncClock(&clock, 0);
    for (int playback = 1; playback <= 2; ++playback) {
        player->loadFileAsync(smallMedia("long.mp4").c_str(), 0);
        ASSERT_TRUE(waitUntil([&] { return recorder.count("prepared") == playback; }));
        ASSERT_TRUE(player->play());
        EXPECT_TRUE(waitUntil([&] { return clock.readings > 0; }));
        player->stop();
        clock.readings = 0;
    }
}

TEST_F(KelpPlayerTest, ReturnsToItsOwnClockAtOnce) {
    init();
    HostClock clock(0);
    player->setExternSyncClock(&clock, 0);
    player->loadFileAsync(smallMedia("long.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    ASSERT_TRUE(player->play());
    PlayTaskPeer peer(*task());
    EXPECT_EQ(VideoPlayThreadPeer::followed(*peer.videoPlay()), KelpPlayerPeer::wrapper(*player));
    player->setExternSyncClock(nullptr, 0);
    EXPECT_EQ(VideoPlayThreadPeer::followed(*peer.videoPlay()), peer.masterClock());
    EXPECT_EQ(AudioPlayThreadPeer::followed(*peer.audioPlay()), peer.masterClock());
    player->setAVSyncMode(SYNC_MASTER_AUDIO);
    EXPECT_EQ(VideoPlayThreadPeer::followed(*peer.videoPlay()), peer.audioPlay());
}

TEST_F(KelpPlayerTest, PassesCommandsOn) {
    init();
    int a = 0;
    EXPECT_TRUE(player->addWindow(WINDOW_TYPE_EXTERN, &a, 10, 20));
    player->updateWindowSize(&a, 30, 40);
    EXPECT_TRUE(player->pauseWindow(&a, true));
    PlayTaskPeer peer(*task());
    EXPECT_THAT(peer.windows(), ElementsAre(std::make_tuple(3, static_cast<void*>(&a), 30, 40)));
    EXPECT_TRUE(player->removeWindow(&a));
    EXPECT_THAT(peer.windows(), IsEmpty());
    player->clearScreen();

    player->enableHwDecoder(false, HW_DECODE_NONE);
    peer.raise(EVENT_COMPLETED, 0, 0, 0);
    VideoDecodeThreadObserver& decode = *task();
    decode.onVideoDecodeFailed();
    drain();
    EXPECT_THAT(recorder.events(), ElementsAre("completed", "failed 2 0"));

    peer.setSeekable(true, 10000);
    EXPECT_TRUE(player->seek(4000));
    EXPECT_EQ(player->getCurrentTime(), 4000);
    EXPECT_FALSE(player->setVolume(1.0f));
    player->setSpeed(1.0f);
}

TEST_F(KelpPlayerTest, SeeksWhilePaused) {
    init();
    player->loadFileAsync(smallMedia("long.mp4").c_str(), 0);
    ASSERT_TRUE(waitUntil([&] { return recorder.has("prepared"); }));
    ASSERT_TRUE(player->play());
    ASSERT_TRUE(waitUntil([&] { return recorder.has("video"); }));
    EXPECT_TRUE(player->pause());
    EXPECT_TRUE(player->seek(10000));
    ASSERT_TRUE(waitUntil([&] { return recorder.has("video 10000") || recorder.has("video 9960"); }));
    EXPECT_TRUE(waitUntil([&] { return player->getCurrentTime() >= 9960; }));
    const auto resumed = std::chrono::steady_clock::now();
    EXPECT_TRUE(player->resume());
    EXPECT_TRUE(waitUntil([&] { return player->getCurrentTime() > 10200; }));
    const int position = player->getCurrentTime();
    const std::chrono::duration<double, std::milli> sinceResumed = std::chrono::steady_clock::now() - resumed;
    EXPECT_LT(position, 10000 + sinceResumed.count() + 1000) << "it went on from the target, at speed 1";
}

}  // namespace
}  // namespace kelp::test
