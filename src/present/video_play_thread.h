#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "clock/sync_object.h"
#include "decode/video_frame_info.h"
#include "kelp_player/types.h"
#include "present/base_play_thread.h"
#include "present/shown_frame.h"
#include "runtime/atomic_shared_ptr.h"

namespace kelp {

class IRender;
class RenderTiming;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// What a VideoPlayThread reports. Called on the play thread, at the end of a seek with its queue's mutex held.
class VideoPlayThreadObserver {
public:
    // The first picture ever, or the first one after a seek; `pts` in milliseconds.
    virtual void onFirstVideoFrame(int64_t pts) = 0;
};

#pragma GCC diagnostic pop

// Decides when each picture goes on the screen and on which windows. A picture is held until its moment has come,
// corrected against the clock that is followed if there is one, and dropped if it is too late; it is drawn on every
// window by a renderer of the window's own. It is a clock that others may follow, too: between two pictures it runs on
// with the wall clock.
//
// Calls in this order: `init`, `start(fps)`, then all others from the control side at will, then `stop`. None of them
// waits for a picture being drawn, but that a queue operation or a window operation may wait for a redraw of the last
// picture while no frames come, or for a window that is being closed. Renderers live on the play thread alone. The
// clock may be read from any thread.
class VideoPlayThread : private BasePlayThread, public SyncObject {
public:
    // `renderTiming` isn't owned and must outlive the thread; only asked if the source is live.
    VideoPlayThread(bool isLive, RenderTiming* renderTiming);
    // Stops the thread if that has not been done.
    ~VideoPlayThread() override;

    void init(std::shared_ptr<VideoPlayThreadObserver> observer);

    // `fps`: the stream's frame rate, for the renderers.
    bool start(int fps);

    // Draws on `window` from the next picture on, a handle of kind `type`. For a window that is known already only
    // the size is taken over, and a removal that has not been carried out yet is taken back. All four are always true.
    bool addWindow(WindowType type, void* window, int width, int height);

    // The play thread lets the window go right before it draws next.
    bool removeWindow(void* window);

    // A paused window keeps its picture.
    bool pauseWindow(void* window, bool pause);

    // The size is passed on at the next drawing.
    void updateWindowSize(void* window, int width, int height);

    // Turns the picture on the screen black from its next drawing on. Takes no lock and waits for nothing.
    void clearScreen();

    // The time of the picture on the screen, or the target of a seek, in milliseconds.
    int64_t getCurrentTime();

    bool start() override;
    int fillFrame(std::shared_ptr<DecodedFrame> frame) override;
    int getFrameQueueSize() override;
    bool pause(bool paused) override;
    void seek(int seekTimeMs, bool needFlush) override;
    bool checkBuffer(int seekTimeMs) override;
    bool clearBuffer(int seekTimeMs) override;
    void stop() override;
    void setMaxPtsMs(int64_t ms) override;

    int64_t getNoSyncThreshold() override;
    bool isForceSync() override;
    int64_t getSyncPts() override;
    void setSyncObject(std::shared_ptr<SyncObject> syncObject) override;

private:
    friend class VideoPlayThreadPeer;  // lets tests drive the steps below without a thread

    struct WindowInfo {
        WindowType type;
        void* window;  // the handle; the key of the list
        int width;     // size the renderer knows of, in pixels
        int height;
        int newWidth;  // size asked for
        int newHeight;
        bool removed;                     // goes at the next drawing
        bool paused;                      // takes no more pictures
        std::shared_ptr<IRender> render;  // empty until the first drawing
    };

    // What one drawing has to do for one window outside of the lock.
    struct UpdatedWindowInfo {
        WindowType type{};
        void* window = nullptr;
        int width = 640;
        int height = 360;
        int newWidth = 0;  // size to pass on; 0 means no change
        int newHeight = 0;
        std::shared_ptr<IRender> render;
        bool created = false;  // the renderer is new and needs init
        bool paused = false;
    };

    bool onOutput(std::shared_ptr<DecodedFrame> frame) override;
    void onOutput() override;
    void onSeekStart(int seekTimeMs) override;
    void onSeekFinish(int ptsMs) override;
    void onExit() override;

    int64_t getCurrentPts();

    // How long to hold a frame after frameTimer_, or -1 if it is too late. `delay` is its distance to the frame before.
    int64_t computeDelay(int64_t delay);

    // The steps of onOutput(frame), in this order. `nowMs` is the time that the frame is judged by.
    void startTiming(int64_t pts, int64_t nowMs);
    int64_t waitUntilDue(int64_t delay, int64_t nowMs);
    void logIfLate(int64_t pts, int64_t delay, int64_t nowMs);
    void stepFrameTimer(const VideoFrameInfo& frame, int64_t delay, int64_t nowMs);
    bool isTooLate(const VideoFrameInfo& frame, int64_t delay);
    bool isHeldByMaster(int64_t pts);
    void setCurrentPts(int64_t pts, int64_t nowMs);

    // Draws `frame`, which may be empty, on every window.
    void renderFrame(std::shared_ptr<VideoFrameInfo> frame);
    void closeRemovedWindows();
    void collectUpdates();  // into updates_

    // Blanks lastFrame_ if that was asked for. To be called before a frame is looked at or drawn.
    void carryOutClearScreen();

    const bool isLive_;
    RenderTiming* const renderTiming_;     // not owned
    std::vector<WindowInfo> windowInfos_;  // in order of adding; guarded by windowMutex_
    std::mutex windowMutex_;
    std::vector<UpdatedWindowInfo> updates_;    // of the drawing that runs; keeps its memory for the next
    std::mutex outputMutex_;                    // held from the decision on a frame to the end of its drawing
    int64_t frameTimer_ = 0;                    // when the last frame was due, milliseconds; 0 before the first
    int64_t lastFramePts_ = 0;                  // of the last frame that went through timing, in milliseconds
    std::atomic<int64_t> currentPts_{0};        // of the picture on the screen, in milliseconds
    std::atomic<int64_t> ptsOffset_{0};         // currentPts_ minus the time when it was set; 0 means no time yet
    AtomicSharedPtr<SyncObject> syncObject_;    // the clock to follow, or none
    std::atomic<bool> resetFrameTimer_{false};  // the next frame starts the timing anew
    std::atomic<bool> videoPaused_{false};      // as the base's; silences logs and keeps late frames
    std::shared_ptr<VideoPlayThreadObserver> observer_;
    std::atomic<bool> firstFrameAtOnce_{true};  // the first picture doesn't wait
    ShownFrame lastFrame_;                      // the picture on the screen
    std::atomic<bool> hadOutput_{false};        // a frame went through drawing; never cleared
    int fps_ = 0;                               // of the stream
    std::atomic<bool> seekStartPending_{
        false};  // from `seek` to onSeekStart, no frame waits; written under frameMutex_
    // Held by other threads while they look at queued frames, before the queue's mutex; and by the play thread when it
    // changes the front frame, or reads what others may change.
    std::mutex frameMutex_;
};

}  // namespace kelp
