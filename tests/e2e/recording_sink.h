#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "kelp_player/frame_sink.h"

namespace kelp::test {

// One picture as the player gave it out.
struct ShownFrame {
    int64_t pts = 0;
    int64_t atUs = 0;  // when it came, on the steady clock
    int width = 0;
    int height = 0;
    int pixFormat = 0;
    int rotate = 0;
    int64_t frameTag = 0;
    bool isPacked = false;       // rows without gaps, planes behind each other
    uint64_t hash = 0;           // of the three planes, see hashPlanes
    std::vector<uint8_t> bytes;  // the three planes with packed rows, if the sink keeps them
};

// A hash of the bytes of a packed planar picture.
uint64_t hashBytes(const uint8_t* bytes, size_t size, uint64_t seed = 1469598103934665603ULL);

int64_t steadyUs();

// Takes the player's pictures and remembers each one once: a repaint of the same picture is only counted.
class RecordingSink final : public ExternFrameSink {
public:
    enum class Keep { Nothing, Hashes, Bytes };

    explicit RecordingSink(Keep keep = Keep::Hashes) : keep_(keep) {}

    std::vector<ShownFrame> frames();
    int frameCount();
    int repaints();
    std::vector<std::array<int, 3>> sizes();  // width, height, fps of every onVideoSize

    // Waits until `count` different pictures came; false after `timeoutMs`.
    bool waitForFrames(int count, int timeoutMs);
    // Waits until the picture at `pts` came; false after `timeoutMs`. The end of a playback is told when all queues are
    // empty: the last picture may still be on its way then.
    bool waitForPicture(int64_t pts, int timeoutMs);

    void onVideoSize(int width, int height, int fps) override;
    bool onVideoFrame(int pixFormat, int64_t pts, uint8_t** data, int* linesize, int rotate, int64_t frameTag) override;

private:
    const Keep keep_;
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::vector<ShownFrame> frames_;
    std::vector<std::array<int, 3>> sizes_;
    int repaints_ = 0;
    int width_ = 0;
    int height_ = 0;
};

}  // namespace kelp::test
