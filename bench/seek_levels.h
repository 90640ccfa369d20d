#pragma once

#include <atomic>

namespace kelp::bench {

// Where a seek is served from.
enum class SeekLevel { None, Pictures, Packets, Demuxer };

// Tells by the log where the last seek was served from. It is the process's log while this lives: one at a time, made
// after the player, which turns the log off.
class SeekLevels {
public:
    SeekLevels();
    ~SeekLevels();
    SeekLevels(const SeekLevels&) = delete;
    SeekLevels& operator=(const SeekLevels&) = delete;

    // Before a seek.
    void forget() { last_ = SeekLevel::None; }
    SeekLevel last() const { return last_; }

private:
    void read(const char* line);

    std::atomic<SeekLevel> last_{SeekLevel::None};
};

}  // namespace kelp::bench
