#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "playtask/play_task.h"
#include "present/standard_sound.h"
#include "runtime/worker.h"
#include "support/log_capture.h"

namespace kelp {

// Reaches into a task: puts stages in their places that a test has made, running or not, and reads the seek state.
class PlayTaskPeer {
public:
    explicit PlayTaskPeer(PlayTask& task) : task_(task) {}

    void set(std::shared_ptr<VideoDecodeThread> thread) { task_.videoDecodeThread_.store(std::move(thread)); }
    void set(std::shared_ptr<AudioDecodeThread> thread) { task_.audioDecodeThread_.store(std::move(thread)); }
    void set(std::shared_ptr<VideoPlayThread> thread) { task_.videoPlayThread_.store(std::move(thread)); }
    void set(std::shared_ptr<AudioPlayThread> thread) { task_.audioPlayThread_.store(std::move(thread)); }
    void set(std::shared_ptr<CodecInfo> info) { task_.codecInfo_.store(std::move(info)); }
    void set(std::shared_ptr<MasterClock> clock) { task_.masterClock_.store(std::move(clock)); }

    void setLoadOptions(const PlaybackOptions& options) { task_.loadOptions_ = options; }
    PlaybackOptions options() { return task_.options(); }
    std::shared_ptr<VideoDecodeThread> videoDecode() { return task_.videoDecodeThread_.load(); }
    std::shared_ptr<AudioDecodeThread> audioDecode() { return task_.audioDecodeThread_.load(); }
    std::shared_ptr<VideoPlayThread> videoPlay() { return task_.videoPlayThread_.load(); }
    std::shared_ptr<AudioPlayThread> audioPlay() { return task_.audioPlayThread_.load(); }
    std::shared_ptr<MasterClock> masterClock() { return task_.masterClock_.load(); }
    std::shared_ptr<SyncObject> syncObject() { return task_.syncObject_.load(); }
    std::shared_ptr<RenderTiming> renderTiming() { return task_.renderTiming_; }
    std::shared_ptr<StreamParser> parser() { return task_.streamParser_; }
    std::shared_ptr<StreamInfo> streamInfo() { return task_.streamInfo_.load(); }
    std::shared_ptr<CodecInfo> codecInfo() { return task_.codecInfo_.load(); }

    SyncMasterMode effectiveMode() { return task_.getSyncMasterMode(); }
    // As `play` has it where a live source is played with a low delay.
    void setLowDelay() { task_.isLowDelay_ = true; }
    std::shared_ptr<SyncObject> master() { return task_.getSyncMasterObject(); }

    void raise(int type, int a, int b, int c) { task_.raise(static_cast<EventType>(type), a, b, c); }

    void setSeekable(bool seekable, int64_t durationMs) {
        task_.seekable_ = seekable;
        task_.durationMs_ = durationMs;
    }
    // Makes a seek to `timeMs` run, or ends the one that does as a stage does where the input has no more frame.
    void setSeeking(bool seeking, int timeMs) {
        task_.seekTurns_.noMoreFrame();
        if (seeking) {
            task_.seekTurns_.request(timeMs);
            task_.seekTurns_.start(timeMs);
        }
    }
    // The end of a seek and a request look at each other one after the other: held by the first of them.
    std::unique_lock<std::mutex> lockSeekTurns() { return std::unique_lock(task_.seekTurns_.mutex_); }
    // With lockSeekTurns held.
    void endSeek() { task_.seekTurns_.end(); }
    void setStalled(bool stalled) { task_.setStalled(stalled); }
    DataLevel dataLevel() { return task_.dataLevel(); }
    bool isSeeking() { return task_.seekTurns_.target().has_value(); }
    int seekingTimeMs() { return task_.seekTurns_.target().value_or(-1); }
    // 0 none, 1 one is due; how far the running one has come: 2 asked for, 3 read, 4 arrived at the play threads.
    int seekPhase() {
        const auto lock = lockSeekTurns();
        return static_cast<int>(task_.seekTurns_.phase_.load());
    }
    int seeksWaiting() { return task_.seekTurns_.waiting(); }
    // The last one that waits.
    int newestSeek() {
        const auto lock = lockSeekTurns();
        return task_.seekTurns_.newestMs_;
    }

    // Type, handle, width and height of the windows.
    std::vector<std::tuple<int, void*, int, int>> windows() {
        std::vector<std::tuple<int, void*, int, int>> list;
        task_.windows_.forEach([&](const HostWindows::WindowInfo& window) {
            list.emplace_back(window.type, window.handle, window.width, window.height);
        });
        return list;
    }

    // Sizes of the pooled buffers, front first.
    std::vector<unsigned int> pixPool() { return sizes(task_.pixBufferPool_); }
    std::vector<unsigned int> pcmPool() { return sizes(task_.pcmBufferPool_); }

private:
    static std::vector<unsigned int> sizes(FrameBufferPool& pool) {
        std::lock_guard lock(pool.mutex_);
        std::vector<unsigned int> list;
        for (const auto& buffer : pool.buffers_) {
            list.push_back(buffer->size);
        }
        return list;
    }

    PlayTask& task_;
};

// Reach into the play threads.
class VideoPlayThreadPeer {
public:
    static std::shared_ptr<SyncObject> followed(VideoPlayThread& thread) { return thread.timing_->master(); }
    static void setCurrentPts(VideoPlayThread& thread, int64_t pts) { thread.timing_->clock().set(pts, /*nowMs=*/pts); }
    // The picture at `pts` is shown, now.
    static void show(VideoPlayThread& thread, int64_t pts) { thread.timing_->setTime(pts, thread.timing_->nowUs()); }
    static int64_t maxPts(VideoPlayThread& thread) { return thread.getMaxPtsMs(); }
    static BasePlayThread& base(VideoPlayThread& thread) { return thread; }
};

class AudioPlayThreadPeer {
public:
    static std::shared_ptr<SyncObject> followed(AudioPlayThread& thread) { return thread.timing_->master_.load(); }
    static void setCurrentPts(AudioPlayThread& thread, int64_t pts) {
        dynamic_cast<StandardSound&>(*thread.timing_).clock_.set(pts, /*nowMs=*/pts);
    }
    static void setUnSyncSamples(AudioPlayThread& thread, int samples) { thread.timing_->unSyncSamples_ = samples; }
    static int64_t maxPts(AudioPlayThread& thread) { return thread.getMaxPtsMs(); }
};

namespace test {

// One raised event.
struct Event {
    int type;
    int a;
    int b;
    int c;

    bool operator==(const Event&) const = default;
};

inline void PrintTo(const Event& event, std::ostream* out) {
    *out << "{" << event.type << ": " << event.a << ", " << event.b << ", " << event.c << "}";
}

// What was logged, but for the worker, which logs at its own pace.
inline std::vector<std::string> linesOf(LogCapture& log) {
    auto lines = log.lines();
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("[Worker]"); });
    return lines;
}

// A task with a running worker and a record of its events. Stops the task at the end.
class TaskUnderTest {
public:
    explicit TaskUnderTest(bool withInit = true)
        : worker(std::make_shared<Worker>()), task(std::make_shared<PlayTask>()), peer(*task) {
        worker->start();
        if (withInit) {
            task->init([this](EventType type, int a, int b, int c) { record({type, a, b, c}); }, worker);
        }
    }
    TaskUnderTest(const TaskUnderTest&) = delete;
    TaskUnderTest& operator=(const TaskUnderTest&) = delete;
    ~TaskUnderTest() {
        task->stop();
        worker->close();
    }

    std::vector<Event> events() {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::vector<Event> eventsOf(int type) {
        auto list = events();
        std::erase_if(list, [type](const Event& event) { return event.type != type; });
        return list;
    }

    // Waits in real time until `count` events of the type came. Whether they did.
    bool waitFor(int type, size_t count = 1, int timeoutMs = 20000) {
        return waitUntil([&] { return eventsOf(type).size() >= count; }, timeoutMs);
    }

    // Waits in real time until `condition` holds. Whether it did.
    template <class Condition>
    static bool waitUntil(Condition condition, int timeoutMs = 20000) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    // Waits until the worker has run everything that is queued now.
    void drainWorker() {
        std::mutex mutex;
        std::condition_variable done;
        bool ran = false;
        worker->task([&] {
            std::lock_guard lock(mutex);
            ran = true;
            done.notify_all();
        });
        std::unique_lock lock(mutex);
        done.wait(lock, [&] { return ran; });
    }

    StreamParserObserver& fromParser() { return *task; }
    VideoDecodeThreadObserver& fromVideoDecode() { return *task; }
    AudioDecodeThreadObserver& fromAudioDecode() { return *task; }
    VideoPlayThreadObserver& fromVideoPlay() { return *task; }
    AudioPlayThreadObserver& fromAudioPlay() { return *task; }

    std::shared_ptr<Worker> worker;
    std::shared_ptr<PlayTask> task;
    PlayTaskPeer peer;

private:
    void record(Event event) {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
    }

    std::mutex mutex_;
    std::vector<Event> events_;  // guarded by mutex_
};

}  // namespace test
}  // namespace kelp
