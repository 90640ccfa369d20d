#include <algorithm>
#include <future>
#include <map>
#include <thread>
#include <utility>

#include "clock/render_timing.h"
#include "clock/timestamp_extrapolator.h"
#include "kelp_player/frame_sink.h"
#include "kelp_player/log.h"
#include "present/video_play_fixture.h"

namespace kelp {
namespace {

using test::blockOf;
using test::FakeTime;
using test::handle;
using test::kStart;
using test::LogCapture;
using test::makePacketPicture;
using test::makePicture;
using test::Shown;
using testing::ElementsAre;
using testing::IsEmpty;

// The play thread itself runs here. Its sleeps are fake; only the base's wait on an empty queue, of 50 ms, is real.
class VideoPlayThreadThreads : public test::VideoPlayFixture {
protected:
    VideoPlayThreadThreads() { Log::SetLevel(0); }
    ~VideoPlayThreadThreads() override {
        FakeTime::setManual(false);
        thread.stop();
        Log::SetLevel(level);
    }

    void fill(std::initializer_list<int64_t> times) {
        for (const int64_t pts : times) {
            thread.fillFrame(makePicture(pts));
        }
    }

    const int level = Log::GetLevel();
};

TEST_F(VideoPlayThreadThreads, TakeQueuedFramesToTheWindowsInOrder) {
    fill({0, 40, 80});
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
    ASSERT_TRUE(thread.start(25));
    ASSERT_TRUE(renders.waitForPicture(80));
    EXPECT_EQ(renders.calls().front(), "1 init type:1 window:0x1 640x480 fps:25");
    EXPECT_THAT(pictures(), ElementsAre(Shown{0, 0}, Shown{40, 40}, Shown{80, 80}));
    thread.stop();
    EXPECT_EQ(renders.countCalls("1 close"), 1);
    EXPECT_EQ(renders.calls().back(), "1 gone");
}

TEST_F(VideoPlayThreadThreads, LendPicturesThatNobodyWritesTo) {
    fill({0, 40, 80});
    ASSERT_TRUE(thread.start(25));
    ASSERT_TRUE(renders.waitForPicture(0));
    const auto reader = std::async(std::launch::async, [this] {
        for (int i = 0; i < 300; ++i) {
            if (const auto lent = thread.lendPicture()) {
                const auto bytes = blockOf(*lent);
                EXPECT_EQ(std::count(bytes.begin(), bytes.end(), bytes.front()), 16 * 8) << "partly black";
            }
        }
    });
    for (int i = 0; i < 300; ++i) {
        thread.clearScreen();
        std::this_thread::yield();
    }
    reader.wait();
}

TEST_F(VideoPlayThreadThreads, StartWithTheFrameRateKnownSoFar) {
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(renders.waitFor("1 init type:1 window:0x1 640x480 fps:0"));
}

TEST_F(VideoPlayThreadThreads, EndWithTheirObject) {
    auto own = std::make_unique<VideoPlayThread>(/*isLive=*/false, nullptr);
    own->addWindow(WINDOW_TYPE_SDL, handle(5), 10, 10);
    own->start(25);
    own->fillFrame(makePicture(0));
    ASSERT_TRUE(renders.waitFor("1 refresh"));
    own.reset();
    EXPECT_EQ(renders.calls().back(), "1 gone");
}

TEST_F(VideoPlayThreadThreads, ServeTheWindowsWhileNoFramesCome) {
    thread.start(25);
    fill({0});
    ASSERT_TRUE(renders.waitFor("1 fill 0"));
    thread.addWindow(WINDOW_TYPE_SDL, handle(2), 320, 240);
    thread.updateWindowSize(handle(1), 1024, 768);
    ASSERT_TRUE(renders.waitFor("2 fill 0"));
    ASSERT_TRUE(renders.waitFor("1 size 1024x768"));
    thread.removeWindow(handle(1));
    ASSERT_TRUE(renders.waitFor("1 gone"));
    thread.clearScreen();
    ASSERT_TRUE(renders.waitFor("2 fill -1"));
}

TEST_F(VideoPlayThreadThreads, AnswerTheHostWhileAPictureIsBeingDrawn) {
    std::promise<void> drawing;
    std::promise<void> goOn;
    bool first = true;
    renders.onRefresh = [&](int64_t) {
        if (std::exchange(first, false)) {
            drawing.set_value();
            goOn.get_future().wait();
        }
    };
    fill({0, 40});
    thread.start(25);
    drawing.get_future().wait();
    thread.addWindow(WINDOW_TYPE_SDL, handle(2), 320, 240);
    thread.updateWindowSize(handle(1), 1, 1);
    thread.pauseWindow(handle(1), false);
    thread.removeWindow(handle(1));
    thread.clearScreen();
    thread.setSyncObject(nullptr);
    thread.fillFrame(makePicture(80));
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
    EXPECT_TRUE(thread.checkBuffer(60));
    EXPECT_EQ(thread.getCurrentTime(), 0);
    thread.pause(true);
    thread.seek(80, /*needFlush=*/false);
    goOn.set_value();
    EXPECT_TRUE(renders.waitFor("2 fill 80"));
    thread.stop();
}

TEST_F(VideoPlayThreadThreads, OfferTheFrontPictureAgainDuringAPause) {
    thread.pause(true);
    fill({1000, 1040});
    thread.start(25);
    ASSERT_TRUE(renders.waitFor("1 fill 1000", 3));
    EXPECT_EQ(thread.getFrameQueueSize(), 2);
    EXPECT_TRUE(thread.checkBuffer(1000));
    thread.clearScreen();
    ASSERT_TRUE(renders.waitFor("1 fill 999", 3));
    // The host and the decoder see the lowered time of the frame in the queue.
    EXPECT_TRUE(thread.checkBuffer(999));
    fill({1080});
    EXPECT_EQ(thread.getFrameQueueSize(), 3);
    thread.pause(false);
    ASSERT_TRUE(renders.waitFor("1 fill 1080"));
}

TEST_F(VideoPlayThreadThreads, LogSeekAndPauseAndQueries) {
    LogCapture log;
    thread.pause(true);
    thread.seek(700, /*needFlush=*/false);
    EXPECT_FALSE(thread.checkBuffer(10));
    EXPECT_FALSE(thread.clearBuffer(20));
    std::vector<std::string> own;
    for (const auto& line : log.lines()) {
        if (line.starts_with("[VideoPlayThread]")) {
            own.push_back(line);
        }
    }
    EXPECT_THAT(own, ElementsAre("[VideoPlayThread]: pause:1\n", "[VideoPlayThread]: seek, seekTimeMs:700\n",
                                 "[VideoPlayThread]: checkBuffer, seekTimeMs:10\n",
                                 "[VideoPlayThread]: clearBuffer, seekTimeMs:20\n"));
}

TEST_F(VideoPlayThreadThreads, SeekWithoutAFlushToAFrameThatIsQueued) {
    thread.pause(true);
    fill({0, 40, 80, 120});
    thread.start(25);
    ASSERT_TRUE(renders.waitFor("1 fill 0"));
    thread.seek(100, /*needFlush=*/false);
    ASSERT_TRUE(renders.waitFor("1 fill 80"));
    EXPECT_THAT(observer->firstFrames(), ElementsAre(0, 80));
    EXPECT_EQ(renders.countCalls("1 fill 40"), 0);
    EXPECT_EQ(thread.getFrameQueueSize(), 2);
}

TEST_F(VideoPlayThreadThreads, EndASeekBehindTheEndAtTheHighestTimeKnown) {
    thread.pause(true);
    thread.start(25);
    thread.setMaxPtsMs(80);
    thread.seek(5000, /*needFlush=*/true);
    fill({40, 80});
    ASSERT_TRUE(renders.waitFor("1 fill 80"));
    EXPECT_THAT(observer->firstFrames().back(), 80);
}

TEST_F(VideoPlayThreadThreads, BreakOffTheWaitForAForcingMasterForASeek) {
    FakeTime::setManual(true);
    thread.start(25);
    fill({0});
    ASSERT_TRUE(renders.waitFor("1 fill 0"));
    follow(-8000)->forcing = true;
    fill({40});
    // 30 ms of the base's sleep on its last frame, then the steps of the wait.
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    FakeTime::advanceMs(30);
    ASSERT_TRUE(renders.waitFor("1 fill 0", 2));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    thread.setSyncObject(nullptr);
    // Without the clock: the rest of the wait ends for it.
    thread.seek(3000, /*needFlush=*/true);
    ASSERT_TRUE(renders.waitFor("1 fill 40"));
    FakeTime::setManual(false);
    // From the start of the seek on; a frame that comes earlier may be popped in place of the one that was drawn.
    while (thread.getCurrentTime() != 3000) {
        std::this_thread::yield();
    }
    fill({3000});
    ASSERT_TRUE(renders.waitFor("1 fill 3000"));
    EXPECT_THAT(observer->firstFrames(), ElementsAre(0, 3000));
}

TEST_F(VideoPlayThreadThreads, StopInTheMiddleOfALongWait) {
    FakeTime::setManual(true);
    thread.start(25);
    fill({0, 900});
    ASSERT_TRUE(renders.waitFor("1 fill 0", 2));
    ASSERT_TRUE(FakeTime::waitForSleepers(1));
    const int64_t nowMs = FakeTime::nowMs();
    thread.stop();
    EXPECT_EQ(FakeTime::nowMs(), nowMs);
    EXPECT_EQ(renders.countCalls("1 fill 900"), 0);
    EXPECT_EQ(thread.getFrameQueueSize(), 0);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// A host's receiver that writes down what it gets.
class Sink : public ExternFrameSink {
public:
    void onVideoSize(int width, int height, int fps) override {
        add("size " + std::to_string(width) + "x" + std::to_string(height) + " fps:" + std::to_string(fps));
    }
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int, int64_t frameTag) override {
        add("format:" + std::to_string(pixFormat) + " pts:" + std::to_string(pts) + " first:" +
            std::to_string(data[0][0]) + " line:" + std::to_string(linesize[0]) + " tag:" + std::to_string(frameTag));
        return true;
    }

    // Until `text` came twice: the picture counts as shown by then, and not as still being drawn.
    bool waitFor(const std::string& text) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return counts_[text] >= 2; });
    }
    // Without repetitions.
    std::vector<std::string> calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    void add(const std::string& call) {
        std::lock_guard lock(mutex_);
        if (calls_.empty() || calls_.back() != call) {
            calls_.push_back(call);
        }
        ++counts_[call];
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
    std::map<std::string, int> counts_;
};

#pragma GCC diagnostic pop

TEST(VideoPlayThreadSink, GetsThePicturesOfTheThreadThroughARealRenderer) {
    FakeTime::reset(kStart);
    Sink sink;
    VideoPlayThread thread(/*isLive=*/false, nullptr);
    thread.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
    thread.start(30);
    thread.fillFrame(makePicture(0, 16, 8, {.y = 7}));
    ASSERT_TRUE(sink.waitFor("format:0 pts:0 first:7 line:16 tag:0"));
    thread.fillFrame(makePacketPicture(40, "Abc"));
    ASSERT_TRUE(sink.waitFor("format:4 pts:40 first:65 line:3 tag:3600"));
    thread.clearScreen();
    ASSERT_TRUE(sink.waitFor("format:4 pts:39 first:65 line:3 tag:3600"));
    thread.fillFrame(makePicture(80, 16, 8, {.y = 9}));
    ASSERT_TRUE(sink.waitFor("format:0 pts:80 first:9 line:16 tag:0"));
    thread.clearScreen();
    ASSERT_TRUE(sink.waitFor("format:0 pts:79 first:0 line:16 tag:0"));
    thread.stop();
    EXPECT_THAT(sink.calls(),
                ElementsAre("size 16x8 fps:30", "format:0 pts:0 first:7 line:16 tag:0", "size 0x0 fps:30",
                            "format:4 pts:40 first:65 line:3 tag:3600", "format:4 pts:39 first:65 line:3 tag:3600",
                            "size 16x8 fps:30", "format:0 pts:80 first:9 line:16 tag:0",
                            "format:0 pts:79 first:0 line:16 tag:0"));
}

// Everything at once; for the sanitizers, and for locks that could meet in the wrong order.
TEST(VideoPlayThreadStress, TakesEveryCallFromOtherThreadsWhileFramesFlow) {
    FakeTime::reset(kStart);
    constexpr int kRounds = 1000;
    const int level = Log::GetLevel();
    Log::SetLevel(0);
    for (const bool live : {false, true}) {
        test::FakeRenders renders;
        Sink sink;
        auto observer = std::make_shared<test::RecordingObserver>();
        TimestampExtrapolator extrapolator;
        RenderTiming timing(&extrapolator);
        auto master = std::make_shared<test::FakeMaster>(0, /*running=*/true);
        VideoPlayThread thread(live, &timing);
        thread.init(observer);
        thread.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 0, 0);
        thread.start(25);

        std::atomic<bool> done{false};
        std::thread decoder([&] {
            int64_t pts = 0;
            while (!done) {
                if (thread.getFrameQueueSize() < 3) {
                    thread.fillFrame(makePicture(pts = (pts + 40) % 8000));
                } else {
                    std::this_thread::yield();
                }
            }
        });
        std::thread windows([&] {
            for (int i = 0; i < kRounds; ++i) {
                const auto window = handle(static_cast<uintptr_t>(2 + i % 3));
                thread.addWindow(WINDOW_TYPE_SDL, window, 10 + i, 10);
                thread.pauseWindow(window, i % 2 == 0);
                thread.updateWindowSize(window, 20 + i, 20);
                std::this_thread::yield();
                thread.removeWindow(window);
            }
        });
        std::thread clearer([&] {
            for (int i = 0; i < kRounds; ++i) {
                thread.clearScreen();
                thread.setSyncObject(i % 3 == 0 ? nullptr : master);
                master->forcing = i % 2 == 0;
                (void)thread.getSyncPts();
                (void)thread.getCurrentTime();
                std::this_thread::yield();
            }
        });
        for (int i = 0; i < kRounds; ++i) {
            thread.pause(i % 4 == 0);
            thread.checkBuffer(i * 13);
            if (i % 5 == 0) {
                thread.seek(i * 13 % 8000, i % 2 == 0);
            } else if (i % 5 == 1) {
                thread.clearBuffer(i * 13);
            }
            thread.setMaxPtsMs(i);
            std::this_thread::yield();
        }
        windows.join();
        clearer.join();
        thread.pause(false);
        thread.setSyncObject(nullptr);
        done = true;
        decoder.join();
        thread.seek(0, /*needFlush=*/true);
        // The first one may be popped in place of a frame from before the seek.
        thread.fillFrame(makePicture(12345678));
        thread.fillFrame(makePicture(12345678));
        EXPECT_TRUE(renders.waitFor("1 fill 12345678"));
        thread.stop();
        EXPECT_EQ(thread.getFrameQueueSize(), 0);
        EXPECT_EQ(WindowListPeer::count(VideoPlayThreadPeer::windows(thread)), 0U);
    }
    Log::SetLevel(level);
}

}  // namespace
}  // namespace kelp
