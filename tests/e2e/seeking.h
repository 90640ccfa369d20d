#pragma once

#include <functional>
#include <string>
#include <vector>

#include "e2e/numbered.h"
#include "e2e/playback.h"
#include "support/log_capture.h"

namespace kelp::test {

// Anything that is waited for comes within this time, on a machine that is slow and busy, or never.
constexpr int kPatienceMs = 40000;

bool waitUntil(const std::function<bool()>& condition, int timeoutMs = kPatienceMs);

// What the seeks of a playback came to, by the log: how often each place served one, and how many waited first.
struct SeekCounts {
    int inFrames = 0;
    int inPackets = 0;
    int atDemuxer = 0;
    int parked = 0;
};

// A player of a numbered file, with its events, its pictures' numbers and its log. One at a time.
class Seeking {
public:
    explicit Seeking(std::string file, SyncMasterMode master = SYNC_MASTER_AUDIO);

    KelpPlayer& player() { return playback.player(); }

    // Opens the file.
    bool open();
    // Opens and plays, and waits for the first frame of all streams that there are.
    bool start();
    // Pauses and waits until the picture stands still.
    bool pause();

    // Waits until the position, which no seek may hold, has reached `ms`.
    bool playUntil(int ms);

    // Seeks to `target` and expects what a seek promises: the event's frame contains the target, its number is right,
    // and it is the first that is shown after those of before.
    void seekTo(int target);
    // The same in two halves: seeks, and looks when the event has come.
    void beginSeek(int target);
    void expectShown(int target);

    // Whether a request came between the end of a seek and the replay of the one that was parked meanwhile, by what was
    // logged so far. It gets in first, and the older one is parked behind it.
    bool hasReplayBeenOutrun();

    // Expects the picture of that number at the end, when this has been told: the picture may still be on its way, and
    // what is shown may be that of the end before.
    void expectLast(int number);

    // The time of picture 0, once the file was started.
    int firstPts() const { return firstPts_; }
    // The number of the picture at `pts`.
    int numberAt(int64_t pts) const;

    SeekCounts counts();
    // Whether a request is neither carried out nor superseded yet, by the log.
    bool isSeeking();

private:
    // Before the player: SDL takes its sound driver from the environment when the first one of the process is made.
    struct SoundGoesToAFile {
        SoundGoesToAFile();
    };
    SoundGoesToAFile soundGoesToAFile_;

public:
    LogCapture log;
    NumberSink sink;
    Playback playback;

private:
    std::string file_;
    int firstPts_ = 0;  // of picture 0
    bool hasVideo_ = false;
    bool hasAudio_ = false;
    int framesBefore_ = 0;  // when the last seek began
    int eventsBefore_ = 0;
};

// A file for SDL to write what it plays to, while this lives. To be made before the player.
class Recording {
public:
    explicit Recording(const std::string& name);
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    std::vector<SoundMoment> moments() const { return soundMoments(path_); }

    // What the sound tells at its first steady moment after the last cut, at which it jumps by more than half a
    // second; -1 if it has none.
    int64_t afterLastCut() const;

private:
    std::string path_;
};

}  // namespace kelp::test
