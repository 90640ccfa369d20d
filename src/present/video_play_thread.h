#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "clock/sync_object.h"
#include "decode/video_frame_info.h"
#include "kelp_player/types.h"
#include "present/base_play_thread.h"
#include "present/picture_timing.h"
#include "present/shown_frame.h"
#include "present/window_list.h"
#include "runtime/playback_options.h"

namespace kelp {

class RenderTiming;
class SubtitleScreen;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// What a VideoPlayThread reports. Called on the play thread, at the end of a seek with its queue's mutex held;
// what was taken is told with no lock held, on the thread that took it.
class VideoPlayThreadObserver {
public:
    // The first picture ever, or the first one after a seek; `pts` in milliseconds.
    virtual void onFirstVideoFrame(int64_t pts) = 0;
    // The first picture ever, which may come while a seek is on its way; the one of the seek is told behind it.
    virtual void onVeryFirstVideoFrame(int64_t pts) { onFirstVideoFrame(pts); }
    // Frames have left the queue, `left` are in it. Comes first when the thread starts.
    virtual void onVideoFramesTaken(int /*left*/) {}
    // Packets that wait for the decoder. No lock is held.
    virtual int onVideoPacketQueueSize() { return 0; }
    // The time that is heard, in milliseconds; -1 if no sound has begun. No lock is held.
    virtual int64_t heardMs() { return -1; }
    // A step has led to this picture, which is shown. No lock is held.
    virtual void onStepped(int64_t /*pts*/) {}
    // A step goes on behind an exact seek to `seekTimeMs`. No lock is held.
    virtual void onStepSeek(int /*seekTimeMs*/) {}
    // Whether a seek is under way, for steps; looks at atomics alone.
    virtual bool isSeekUnderWay() { return false; }
};

#pragma GCC diagnostic pop

// Brings each picture to the windows at its time. A picture is held until its moment has come, corrected against the
// clock that is followed if there is one, and dropped if it is too late: PictureTiming decides, this class waits. It is
// a clock that others may follow, too: between two pictures it runs on.
//
// Calls in this order: `init`, `start(fps)`, then all others from the control side at will, then `stop`. None of them
// waits for a picture being drawn, but that a queue operation or a window operation may wait for a redraw of the last
// picture while no frames come, or for a window that is being closed. Renderers live on the play thread alone. The
// clock may be read from any thread.
class VideoPlayThread : private BasePlayThread, public SyncObject {
public:
    // `renderTiming` isn't owned and must outlive the thread; only asked if the source is live. `options` choose the
    // form of the timing.
    VideoPlayThread(bool isLive, RenderTiming* renderTiming, const PlaybackOptions& options = {});
    // Stops the thread if that has not been done.
    ~VideoPlayThread() override;

    void init(std::shared_ptr<VideoPlayThreadObserver> observer) { observer_ = std::move(observer); }

    // Before the start: the windows show the picture of a thread that stands. They are let be until there is one of
    // this thread, which then calls `relieve` on its play thread, with no lock held, and draws when that returns.
    void takeOver(std::function<void()> relieve) { relieve_ = std::move(relieve); }

    // `fps`: the stream's frame rate, for the renderers.
    bool start(int fps);

    // What the windows show over the pictures, or none; before the start.
    void setSubtitles(std::shared_ptr<SubtitleScreen> subtitles);

    // Whether a picture was brought to the windows.
    bool hasDrawn() const { return hasDrawn_; }

    // When nothing comes any more: drops what is queued, and goes on showing the last picture until `stop`.
    void stand() { dropFrames(); }

    // What `stop` leaves on the windows: black, if nothing is said.
    void setLeaving(WindowList::Leaving leaving) { leaving_ = leaving; }

    // Draws on `window` from the next picture on, a handle of kind `type`. For a window that is known already only
    // the size is taken over, and a removal that has not been carried out yet is taken back. All four are always true.
    bool addWindow(WindowType type, void* window, int width, int height);

    // The play thread lets the window go right before it draws next.
    bool removeWindow(void* window);

    // A paused window keeps its picture.
    bool pauseWindow(void* window, bool pause);

    // The size is passed on at the next drawing.
    void updateWindowSize(void* window, int width, int height);

    // How the pictures lie in the windows, from the next drawing on.
    void setFit(PictureFit fit);

    // The picture that was brought to all windows and sinks last, as it is; null if there is none. Any thread.
    std::shared_ptr<const VideoFrameInfo> lendPicture() { return lastFrame_.lend(); }

    // Turns the picture on the screen black from its next drawing on. Waits for nothing.
    void clearScreen();

    // At which pictures go by; looked at by exact timing alone, the standard one knows its master's time.
    void setSpeed(double speed);

    // The time of the picture on the screen, or the target of a seek, in milliseconds: of an exact one also while the
    // picture that holds it is there.
    int64_t getCurrentTime() { return timing_->clock().pts(); }
    bool hasTime() { return timing_->clock().hasTime(); }

    // What is earlier is too late to be shown, in milliseconds; nothing if that isn't known. Any thread.
    std::optional<int64_t> dueMs() { return isSeekPending() ? std::nullopt : timing_->timeToShowMs(); }

    // What it counts; any thread, without a lock.
    const PictureCounts& counts() const { return counts_; }

    // Whether the picture on the screen is the last one, or has been there for half a second with none behind it. Of
    // odd streams alone.
    bool isDry();

    using BasePlayThread::dropSteps;
    using BasePlayThread::endFrames;
    using BasePlayThread::fillFrame;
    using BasePlayThread::getFrameQueueSize;
    using BasePlayThread::hasShown;
    using BasePlayThread::holdsFrom;
    using BasePlayThread::isPaused;
    using BasePlayThread::isStepAwaited;
    using BasePlayThread::level;
    using BasePlayThread::prepareStop;
    using BasePlayThread::seekInQueue;
    using BasePlayThread::setMaxPtsMs;
    using BasePlayThread::setSeekRule;
    using BasePlayThread::start;
    using BasePlayThread::step;
    using BasePlayThread::stop;
    using BasePlayThread::takeOddStreams;
    bool pause(bool paused) override;
    void seek(int seekTimeMs, bool needFlush) override;
    bool checkBuffer(int seekTimeMs) override;
    bool clearBuffer(int seekTimeMs) override;

    int64_t getNoSyncThreshold() override { return 10000; }
    bool isForceSync() override { return false; }
    int64_t getSyncPts() override { return timing_->positionMs(); }
    int64_t getSyncPtsUs() override { return timing_->positionUs(); }
    void setSyncObject(std::shared_ptr<SyncObject> syncObject) override;

private:
    friend class VideoPlayThreadPeer;  // lets tests drive the steps below without a thread

    bool onOutput(std::shared_ptr<DecodedFrame> frame) override;
    void onOutput() override;
    void onSeekStart(int seekTimeMs) override;
    void onSeekFinish(int ptsMs) override;
    void onStep(const std::shared_ptr<DecodedFrame>& frame) override;
    void onStepSeek(int seekTimeMs) override;
    bool isSeekUnderWay() const override;
    int64_t otherTimeMs() override;
    void onLateStart(int64_t positionMs) override;
    void onExit() override;
    void onFramesTaken(int left) override;

    std::unique_ptr<PictureTiming> makeTiming(bool isLive, RenderTiming* renderTiming, const PlaybackOptions& options);

    // Waits until the picture that has begun is due and returns the time then; earlier if the wait was broken off.
    // Nothing if a step goes before it.
    std::optional<int64_t> waitUntilDue(int64_t nowUs);

    // A part of that wait: carries out what others asked for, and rests until the windows want a drawing or the picture
    // is due. A request ends the rest, but those that come thick and fast are served every 15 ms. `changes`: of the
    // timing, when it was looked at.
    void serveAndRest(unsigned int changes);

    // After a request was noted that serveAndRest or the wait around it looks at. Any thread.
    void askToServe();

    // Brings `frame`, or what is there if it is empty, to the windows. In how many milliseconds they want it again.
    int draw(const std::shared_ptr<VideoFrameInfo>& frame);

    // Blanks lastFrame_ if that was asked for. To be called before a frame is looked at or drawn.
    void carryOutClearScreen();

    const std::unique_ptr<PictureTiming> timing_;
    WindowList windows_;
    std::shared_ptr<SubtitleScreen> subtitles_;  // or null
    std::shared_ptr<VideoPlayThreadObserver> observer_;
    ShownFrame lastFrame_;  // the picture on the screen
    PictureCounts counts_;
    std::atomic<bool> serveAsked_{false};
    std::function<void()> relieve_;  // the play thread's; empty when the windows are its own
    std::atomic<bool> hasDrawn_{false};
    std::atomic<WindowList::Leaving> leaving_{WindowList::Leaving::Black};
    int fps_ = 0;                  // of the stream
    bool isFirstAwaited_ = false;  // the clock goes on before the very first picture; the play thread's
};

}  // namespace kelp
