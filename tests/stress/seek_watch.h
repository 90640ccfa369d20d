#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

namespace kelp::test {

// Follows the seeks of one player by its log: which one is under way, and whether one waits for its end. It takes the
// log of the process while it lives; one at a time.
class SeekWatch {
public:
    SeekWatch();
    ~SeekWatch();
    SeekWatch(const SeekWatch&) = delete;
    SeekWatch& operator=(const SeekWatch&) = delete;

    // For the playback to come: which stream ends its seeks.
    void reset(bool hasVideo);

    // No seek is under way and none waits.
    bool isIdle();
    // A seek has ended in a frame and the one that waits for its end isn't taken up. That is so for a moment at each
    // such end, and for good where the end of the file came before that frame and dropped what waited.
    struct Forgotten {
        bool is = false;
        int64_t parkedAtUs = 0;  // when the last one began to wait, on the steady clock
        int64_t endedAtUs = 0;   // when the one that it waited for ended
    };
    Forgotten forgotten();
    // What happened so far to all requests.
    struct Totals {
        int requests = 0;  // those that were taken, also the ones that come again after waiting
        int inFrames = 0;
        int inPackets = 0;
        int atDemuxer = 0;
        int parked = 0;
        int replayed = 0;  // the last of those that waited, each time
    };
    Totals totals();

    // Counts up the ends that aren't told by an event: the input ended before any key frame.
    int endsWithoutAFrame();

    void printTail();

private:
    void take(const std::string& line);

    std::mutex mutex_;  // guards what follows
    Totals totals_;
    bool hasVideo_ = true;
    bool running_ = false;
    bool waiting_ = false;
    int64_t parkedAtUs_ = 0;
    int64_t endedAtUs_ = 0;
    int endsWithoutAFrame_ = 0;
    std::deque<std::string> tail_;  // the last lines
};

}  // namespace kelp::test
