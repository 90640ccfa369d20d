#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "playtask/play_task_peer.h"
#include "playtask/small_media.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

// Loading, windows and the plain commands.

namespace kelp::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Takes connections and never says a word.
class SilentServer {
public:
    SilentServer() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(listen(socket_, 4), 0);
        EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size), 0);
        url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;
    ~SilentServer() { close(socket_); }

    const std::string& url() const { return url_; }

private:
    int socket_;
    std::string url_;
};

class PlayTaskTest : public testing::Test {
protected:
    void SetUp() override { FakeTime::reset(); }

    void load(const std::string& name) {
        ASSERT_TRUE(under.task->loadFileAsync(smallMedia(name), 0));
        ASSERT_TRUE(under.waitFor(EVENT_PREPARED));
    }

    TaskUnderTest under;
};

TEST_F(PlayTaskTest, IsIdleBeforeInit) {
    TaskUnderTest idle(/*withInit=*/false);
    LogCapture log;
    EXPECT_FALSE(idle.task->play());
    idle.task->setOption("key", "value");
    EXPECT_TRUE(idle.task->pause());
    EXPECT_TRUE(idle.task->resume());
    EXPECT_FALSE(idle.task->seek(0));
    EXPECT_EQ(idle.task->getCurrentTime(), 0);
    EXPECT_EQ(log.count("play"), 0);
    EXPECT_TRUE(idle.task->stop());
}

TEST(PlayTask, NeedsASharedOwner) {
    PlayTask task;
    EXPECT_THROW(task.init([](EventType, int, int, int) {}, nullptr), std::bad_weak_ptr);
}

TEST_F(PlayTaskTest, FailsABarrenLoadBeforeInitWithoutAWord) {
    TaskUnderTest idle(/*withInit=*/false);
    EXPECT_TRUE(idle.task->loadFileAsync("x", 0));
    EXPECT_TRUE(idle.task->stop());
    EXPECT_THAT(idle.events(), IsEmpty());
}

TEST_F(PlayTaskTest, HasNoSnapshotWithoutAPicture) {
    LogCapture log;
    EXPECT_FALSE(under.task->takeSnapshot("picture.png"));
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]: takeSnapshot, there is no picture\n"));
}

TEST_F(PlayTaskTest, RefusesAnEmptyName) {
    LogCapture log;
    EXPECT_FALSE(under.task->loadFileAsync("", 5));
    EXPECT_THAT(linesOf(log), ElementsAre("[PlayTask]: LoadVideoFile, fileName:, seekTime:5\n"));
    under.task->stop();
    EXPECT_THAT(under.events(), IsEmpty());
}

TEST_F(PlayTaskTest, RefusesToPlayWhatIsNotOpen) {
    EXPECT_FALSE(under.task->play());
    EXPECT_EQ(under.peer.masterClock(), nullptr);
}

TEST_F(PlayTaskTest, TellsWhatItHasLoaded) {
    load("av.mp4");
    EXPECT_THAT(under.events(),
                ElementsAre(Event{EVENT_VIDEO_SIZE_UPDATED, 64, 48, 0}, Event{EVENT_PREPARED, 1, 1, 0}));
    const auto info = under.task->getPlayDetailInfo();
    EXPECT_EQ(info.width, 64);
    EXPECT_EQ(info.height, 48);
    EXPECT_EQ(info.rotate, 0);
    EXPECT_EQ(info.fps, 25);
    EXPECT_EQ(info.duration, under.peer.streamInfo()->duration);
    EXPECT_NEAR(info.duration, 2000, 50);
    EXPECT_EQ(under.task->getDuration(), info.duration);

    // The seek is refused from here on only if the source can't seek.
    EXPECT_TRUE(under.task->seek(0));
    under.task->stop();
    EXPECT_FALSE(under.task->seek(0));
    EXPECT_EQ(under.task->getDuration(), 0);
    EXPECT_EQ(under.task->getPlayDetailInfo().width, 0);
    EXPECT_EQ(under.task->getPlayDetailInfo().height, 0);
    EXPECT_EQ(under.task->getPlayDetailInfo().fps, 0);
    EXPECT_EQ(under.peer.streamInfo(), nullptr);
    EXPECT_EQ(under.peer.codecInfo(), nullptr);
}

TEST_F(PlayTaskTest, HasNoSizeForSoundAlone) {
    load("audio.mp4");
    EXPECT_THAT(under.events(), ElementsAre(Event{EVENT_PREPARED, 0, 1, 0}));
    const auto info = under.task->getPlayDetailInfo();
    EXPECT_EQ(info.width, 0);
    EXPECT_EQ(info.height, 0);
    EXPECT_EQ(info.fps, 0);
    EXPECT_NEAR(info.duration, 2000, 50);
}

TEST_F(PlayTaskTest, ReportsAnOpenThatFails) {
    ASSERT_TRUE(under.task->loadFileAsync("/nowhere/at/all.mp4", 0));
    ASSERT_TRUE(under.waitFor(EVENT_FAILED));
    EXPECT_TRUE(under.task->stop());
    EXPECT_THAT(under.events(), ElementsAre(Event{EVENT_FAILED, 1, 0, 0}));
    load("video.mp4");
    EXPECT_EQ(under.eventsOf(EVENT_PREPARED), std::vector<Event>{(Event{EVENT_PREPARED, 1, 0, 0})});
}

TEST_F(PlayTaskTest, SaysNothingOfAnOpenThatStopCutsShort) {
    const SilentServer server;
    LogCapture log;
    ASSERT_TRUE(under.task->loadFileAsync(server.url(), 0));
    ASSERT_TRUE(TaskUnderTest::waitUntil([&] { return log.has("[StreamParser]: open filePath:http"); }));
    EXPECT_TRUE(under.task->stop());
    EXPECT_TRUE(log.has("is stoped:1"));
    EXPECT_THAT(under.events(), IsEmpty());
}

TEST_F(PlayTaskTest, OpensWithTheOptionsOfTheHost) {
    under.task->setOption("max_delay", "7");
    LogCapture log;
    load("audio.mp4");
    EXPECT_TRUE(log.has("open, set key:max_delay, value:7\n"));
    EXPECT_TRUE(log.has("open, set key:rtsp_transport, value:tcp\n"));
    // They survive a stop.
    under.task->stop();
    log.clear();
    ASSERT_TRUE(under.task->loadFileAsync(smallMedia("audio.mp4"), 0));
    ASSERT_TRUE(under.waitFor(EVENT_PREPARED, 2));
    EXPECT_TRUE(log.has("open, set key:max_delay, value:7\n"));
}

TEST_F(PlayTaskTest, OpensAtTheTimeGiven) {
    LogCapture log;
    ASSERT_TRUE(under.task->loadFileAsync(smallMedia("audio.mp4"), 1500));
    ASSERT_TRUE(under.waitFor(EVENT_PREPARED));
    EXPECT_TRUE(log.has("seekTimeMs:1500\n"));
    EXPECT_TRUE(log.has("LoadVideoFile, fileName:" + smallMedia("audio.mp4") + ", seekTime:1500\n"));
}

TEST_F(PlayTaskTest, KeepsOneEntryPerWindow) {
    int a = 0;
    int b = 0;
    EXPECT_TRUE(under.task->addWindow(WINDOW_TYPE_SDL, &a, 10, 20));
    EXPECT_TRUE(under.task->addWindow(WINDOW_TYPE_EXTERN, &b, 30, 40));
    EXPECT_TRUE(under.task->addWindow(WINDOW_TYPE_EXTERN, &a, 50, 60));
    EXPECT_THAT(under.peer.windows(), ElementsAre(std::make_tuple(2, static_cast<void*>(&a), 50, 60),
                                                  std::make_tuple(3, static_cast<void*>(&b), 30, 40)));
    under.task->updateWindowSize(&b, 1, 2);
    under.task->updateWindowSize(&under, 3, 4);
    EXPECT_TRUE(under.task->removeWindow(&a));
    EXPECT_TRUE(under.task->removeWindow(&a));
    EXPECT_TRUE(under.task->pauseWindow(&b, true));
    EXPECT_TRUE(under.task->addWindow(WINDOW_TYPE_QT_WINID, nullptr, 5, 6));
    under.task->clearScreen();
    under.task->stop();
    EXPECT_THAT(under.peer.windows(), ElementsAre(std::make_tuple(3, static_cast<void*>(&b), 1, 2),
                                                  std::make_tuple(1, static_cast<void*>(nullptr), 5, 6)));
}

TEST_F(PlayTaskTest, PassesWindowCommandsToTheVideoPlayThread) {
    under.peer.set(std::make_shared<VideoPlayThread>(false, nullptr));
    int a = 0;
    LogCapture log;
    under.task->addWindow(WINDOW_TYPE_EXTERN, &a, 10, 20);
    under.task->updateWindowSize(&a, 11, 21);
    under.task->pauseWindow(&a, true);
    under.task->removeWindow(&a);
    const auto lines = linesOf(log);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_THAT(lines[0], testing::StartsWith("[VideoPlayThread]: addWindow, window info size:"));
    EXPECT_THAT(lines[1], testing::StartsWith("[VideoPlayThread]: updateWindowSize, window info size:1"));
    EXPECT_THAT(lines[2], testing::StartsWith("[VideoPlayThread]: pauseWindow, window info size:1"));
    EXPECT_THAT(lines[3], testing::StartsWith("[VideoPlayThread]: removeWindow, window info size:1"));
    EXPECT_THAT(under.peer.windows(), IsEmpty());
}

TEST_F(PlayTaskTest, PausesVideoThenAudio) {
    under.peer.set(std::make_shared<VideoPlayThread>(false, nullptr));
    under.peer.set(std::make_shared<AudioPlayThread>());
    LogCapture log;
    EXPECT_TRUE(under.task->pause());
    EXPECT_TRUE(under.task->resume());
    EXPECT_THAT(linesOf(log),
                ElementsAre("[PlayTask]: pause\n", "[VideoPlayThread]: pause:1\n",
                            "[BasePlayThread]: [VideoPlayThread], pause:1\n", "[AudioPlayThread]: pause:1\n",
                            "[BasePlayThread]: [AudioPlayThread], pause:1\n", "[PlayTask]: resume\n",
                            "[VideoPlayThread]: pause:0\n", "[BasePlayThread]: [VideoPlayThread], pause:0\n",
                            "[AudioPlayThread]: pause:0\n", "[BasePlayThread]: [AudioPlayThread], pause:0\n"));
}

TEST_F(PlayTaskTest, TellsTheTimeOfVideoBeforeThatOfAudio) {
    EXPECT_EQ(under.task->getCurrentTime(), 0);
    const auto audio = std::make_shared<AudioPlayThread>();
    AudioPlayThreadPeer::setCurrentPts(*audio, 300);
    under.peer.set(audio);
    EXPECT_EQ(under.task->getCurrentTime(), 300);
    const auto video = std::make_shared<VideoPlayThread>(false, nullptr);
    VideoPlayThreadPeer::setCurrentPts(*video, 0x1'0000'0007);
    under.peer.set(video);
    EXPECT_EQ(under.task->getCurrentTime(), 7);

    // The host sees no position that jumps about while a seek runs.
    under.peer.setSeeking(true, 12345);
    EXPECT_EQ(under.task->getCurrentTime(), 12345);
    under.peer.setSeeking(false, 12345);
    EXPECT_EQ(under.task->getCurrentTime(), 7);
}

TEST_F(PlayTaskTest, HasNoVolumeWithoutSound) {
    EXPECT_FALSE(under.task->setVolume(0.5f));
    // There is no output yet either.
    under.peer.set(std::make_shared<AudioPlayThread>());
    EXPECT_FALSE(under.task->setVolume(0.5f));
}

TEST_F(PlayTaskTest, EndsTheProcessOnASecondLoadWithoutAStop) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(
        {
            TaskUnderTest other;
            other.task->loadFileAsync("/nowhere", 0);
            other.task->loadFileAsync("/nowhere", 0);
        },
        "terminate");
}

}  // namespace
}  // namespace kelp::test
