#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "present/fake_master.h"
#include "present/fake_renders.h"
#include "present/standard_timing.h"
#include "present/video_frames.h"
#include "present/video_play_thread.h"
#include "support/log_capture.h"
#include "support/private_member.h"

namespace kelp::test {

using SeekAsked = LatestTime BasePlayThread::*;
SeekAsked privateMember(PrivateMember<struct SeekAskedTag, SeekAsked>);
template struct ExposeMember<struct SeekAskedTag, &BasePlayThread::seekAsked_>;

using Landing = SeekLanding BasePlayThread::*;
Landing privateMember(PrivateMember<struct LandingTag, Landing>);
template struct ExposeMember<struct LandingTag, &BasePlayThread::landing_>;

}  // namespace kelp::test

namespace kelp {

// Drives the steps of the play thread on the test's own thread.
class VideoPlayThreadPeer {
public:
    static bool output(VideoPlayThread& thread, std::shared_ptr<DecodedFrame> frame) {
        return thread.onOutput(std::move(frame));
    }
    static void idle(VideoPlayThread& thread) { thread.onOutput(); }
    // As the loop does: what was asked for is taken, then served.
    static void seekStart(VideoPlayThread& thread, int seekTimeMs) {
        BasePlayThread& base = thread;
        (base.*privateMember(test::PrivateMember<test::SeekAskedTag, test::SeekAsked>{})).take();
        thread.onSeekStart(seekTimeMs);
    }
    static void seekFinish(VideoPlayThread& thread, int ptsMs) { thread.onSeekFinish(ptsMs); }
    // An exact seek has ended in the frame at `pts`.
    static void land(VideoPlayThread& thread, int seekTimeMs, int64_t pts) {
        BasePlayThread& base = thread;
        SeekLanding landing(SeekRule::Exact, seekTimeMs);
        landing.land(*test::makePicture(pts));
        base.*privateMember(test::PrivateMember<test::LandingTag, test::Landing>{}) = landing;
    }
    static void exit(VideoPlayThread& thread) { thread.onExit(); }
    static int64_t frameTimer(VideoPlayThread& thread) {
        return dynamic_cast<StandardTiming&>(*thread.timing_).frameTimer();
    }
    static WindowList& windows(VideoPlayThread& thread) { return thread.windows_; }
};

namespace test {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class RecordingObserver : public VideoPlayThreadObserver {
public:
    void onFirstVideoFrame(int64_t pts) override {
        std::lock_guard lock(mutex_);
        firstFrames_.push_back(pts);
    }
    std::vector<int64_t> firstFrames() {
        std::lock_guard lock(mutex_);
        return firstFrames_;
    }

private:
    std::mutex mutex_;
    std::vector<int64_t> firstFrames_;
};

#pragma GCC diagnostic pop

// A play thread with one window, not started: the test is its thread.
class VideoPlayFixture : public testing::Test {
protected:
    VideoPlayFixture() {
        FakeTime::reset(kStart);
        thread.init(observer);
        thread.addWindow(WINDOW_TYPE_QT_WINID, handle(1), 640, 480);
    }

    bool output(const std::shared_ptr<DecodedFrame>& frame) { return VideoPlayThreadPeer::output(thread, frame); }
    bool output(int64_t pts) { return output(makePicture(pts)); }

    // Queues frames that nobody takes.
    void queue(int count) {
        for (int i = 0; i < count; ++i) {
            thread.fillFrame(makePicture(1'000'000 + i));
        }
    }

    std::shared_ptr<FakeMaster> follow(int64_t pts, bool running = false) {
        auto master = std::make_shared<FakeMaster>(pts, running);
        thread.setSyncObject(master);
        return master;
    }

    static int64_t elapsed() { return FakeTime::nowMs() - kStart; }

    // When each new picture came on the first window, from the start of the test.
    std::vector<Shown> pictures() { return sinceStart(renders.pictures()); }
    std::vector<Shown> refreshes() { return sinceStart(renders.refreshes()); }

    FakeRenders renders;
    std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
    VideoPlayThread thread{/*isLive=*/false, /*renderTiming=*/nullptr};

private:
    static std::vector<Shown> sinceStart(std::vector<Shown> shown) {
        for (auto& entry : shown) {
            entry.timeMs -= kStart;
        }
        return shown;
    }
};

}  // namespace test
}  // namespace kelp
