#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kelp_player/types.h"

namespace kelp::test {

// The managed player's state machine as it is described to hosts, without a player: what it asks of the engine and
// tells the host, in order.
class ManagedModel {
public:
    // What the engine answers, and what time it is there.
    std::map<std::string, bool> answers;  // by operation; true where nothing stands
    int currentTimeMs = 0;
    int durationMs = 0;
    int64_t clockMs = 0;
    int restarts = 0;

    // What was done, in order.
    std::vector<std::string> calls;  // of the engine
    std::vector<std::string> told;   // to the host
    // Timers of the engine that run, and what the host does when it hears of a source that is ready.
    std::map<unsigned int, std::function<void()>> timers;
    std::function<void()> onHostPrepared;

    // The host's operations.
    bool setDataSource(const char* url, int offsetMs, bool observer);
    bool prepareAsync();
    bool start();
    bool pause();
    bool resume();
    bool seek(int timeMs);
    bool stepFrame(int pictures);
    bool setLoop(int startMs, int endMs);
    void clearLoop() { call("clearLoop()"); }
    bool selectTrack(int kind, int number);
    bool stop();
    bool reset();
    int getCurrentTime();
    int getDuration();
    bool setVolume(float volume);
    void setMute(bool muted);
    bool takeSnapshot(const std::string& path) { return ask("takeSnapshot", path); }
    void enableHwDecoder(bool enable, int mode);
    void setSyncClock(bool clock);
    bool setOffsetToClockMs(int offsetMs);
    void setRetry(int64_t intervalMs) { retryIntervalMs_ = intervalMs; }
    void addHostTimer();

    // What the engine says.
    void prepared(bool hasVideo, bool hasAudio);
    void failed(int errorType, int extraData);
    void completed();
    void firstVideoFrame(int ptsMs);
    void durationUpdated(int durationMs);
    void runWorker();
    void fire(unsigned int id);

private:
    enum State {
        Error = 0,
        Idle = 1,
        Ready = 2,
        Preparing = 4,
        Prepared = 8,
        Started = 16,
        Paused = 32,
        Stopped = 64,
        Completed = 128
    };

    bool isOutdated() const { return loadsAhead_ > 0; }
    bool isIn(int states) const { return (state_ & states) != 0; }
    void call(const std::string& text) { calls.push_back(text); }
    bool ask(const std::string& operation, const std::string& arguments = "");
    void tell(const std::string& text);
    unsigned int addTimer(unsigned int intervalMs, std::function<void()> function);
    void removeTimer(unsigned int id);
    void post(std::function<void()> function);
    void postStarted();
    bool load(int seekTimeMs);
    bool unload();
    void pauseIfRequested();
    void restartLater(State oldState, unsigned int generation);
    void restart(State oldState, unsigned int generation);

    State state_ = Idle;
    bool startRequest_ = false;
    bool pauseRequest_ = false;
    std::string source_;
    int offsetMs_ = 0;
    int toldOffsetMs_ = 0;  // what the host's times are moved by
    bool hasObserver_ = false;
    bool toldObserver_ = false;
    bool hasClock_ = false;
    bool hwEnabled_ = true;
    int hwMode_ = 3;
    int64_t retryIntervalMs_ = 0;
    unsigned int retryTimer_ = 0;
    unsigned int nextTimer_ = 1;
    bool loaded_ = false;
    int loadsAhead_ = 0;           // while there are any, events are those of a source before
    unsigned int generation_ = 0;  // of the source: a restart of an older one does nothing
    std::vector<std::function<void()>> worker_;
};

}  // namespace kelp::test
