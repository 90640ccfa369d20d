#pragma once

#include <SDL.h>
#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "playtask/play_task_peer.h"
#include "playtask/small_media.h"
#include "support/fake_time.h"
#include "support/log_capture.h"

extern "C" {
#include <libavutil/avutil.h>
}

namespace kelp::test {

// What the libraries below a pipeline are told to do; reset before each test.
struct PipelineFaults {
    static std::atomic<int> failingMediaType;  // an AVMediaType whose decoders don't open; -1 for all, -2 for none
    static std::atomic<bool> noSoundTouch;
    static std::atomic<int> threadsUntilNone;   // the how manieth stage from now gets no thread; 0 for none
    static std::atomic<int> threadsUntilThrow;  // the how manieth thread from now the system refuses; 0 for none
    // Called on the thread that comes by. A test that sets one stops its playback before it ends.
    static std::function<void()> atThread;  // the system has started a thread, and the caller doesn't know of it yet
    static std::function<void()> atStage;   // a stage is about to start its thread
    static std::function<void()> atTempo;   // the tempo library is being called
    static std::function<void()> atRead;    // the parser is about to read a packet
    static std::atomic<bool> isLive;        // the sources that are opened from now on are taken for live ones
    static std::mutex temposMutex;
    static std::vector<float> tempos;  // asked for, guarded by temposMutex

    static void reset();
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class CountingSink : public ExternFrameSink {
public:
    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int pixFormat, int64_t, uint8_t**, int*, int, int64_t) override {
        ++count;
        packets += pixFormat == PIX_FMT_PACKET;
        return true;
    }
    std::atomic<int> count{0};
    std::atomic<int> packets{0};
};
#pragma GCC diagnostic pop

class PlayTaskPipeline : public testing::Test {
protected:
    static void SetUpTestSuite() { SDL_Init(SDL_INIT_AUDIO | SDL_INIT_VIDEO); }
    static void TearDownTestSuite() { SDL_Quit(); }

    void SetUp() override {
        FakeTime::reset();
        PipelineFaults::reset();
    }
    void TearDown() override {
        PipelineFaults::reset();
        FakeTime::reset();  // whoever still sleeps wakes up
    }

    void load(const std::string& name) {
        const size_t before = under.eventsOf(EVENT_PREPARED).size();
        ASSERT_TRUE(under.task->loadFileAsync(smallMedia(name), 0));
        ASSERT_TRUE(under.waitFor(EVENT_PREPARED, before + 1));
    }

    static std::vector<std::string> only(const std::vector<std::string>& lines, const std::string& text) {
        std::vector<std::string> found;
        for (const auto& line : lines) {
            if (line.find(text) != std::string::npos) {
                found.push_back(line);
            }
        }
        return found;
    }

    CountingSink sink;  // outlives the playback
    TaskUnderTest under;
};

}  // namespace kelp::test
