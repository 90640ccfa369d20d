#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "decode/video_frame_info.h"

namespace kelp {

// The picture on the screen, and the requests of other threads to turn it black.
//
// `requestBlank` may come from any thread, takes no lock and writes to no picture: the play thread, which alone calls
// everything else but `lend`, carries the requests out where nobody reads the picture. A request is for the picture
// that is shown when it is made and is void if another one is shown by then.
class ShownFrame {
public:
    // The picture; empty before the first.
    const std::shared_ptr<VideoFrameInfo>& get() const { return frame_; }
    void set(const std::shared_ptr<VideoFrameInfo>& frame);

    // The picture as it is now, which stays so; null before the first, and for one that isn't decoded. Any thread; it
    // copies nothing, and waits for a picture that is being blanked at most.
    std::shared_ptr<const VideoFrameInfo> lend();

    void requestBlank();

    // Blanks the picture if that was requested, one that others read, the decoder or who has lent it, in a block of its
    // own, and lowers its time by one millisecond for each request. `lock` is held for what other threads read; one
    // without a mutex if that is held already.
    void carryOutBlanks(std::unique_lock<std::mutex> lock);

private:
    std::mutex mutex_;                       // the innermost but for the log's; guards what pictures are lent, too
    std::shared_ptr<VideoFrameInfo> frame_;  // written by the play thread under mutex_, its picture too
    std::atomic<uint64_t> id_{0};            // counts the pictures; 0 before the first
    std::atomic<uint64_t> request_{0};       // the id_ to blank, and in the low 16 bits how often
};

}  // namespace kelp
