#pragma once

#include <deque>
#include <memory>
#include <mutex>

#include "decode/decoded_frame.h"

namespace kelp {

// Keeps the buffers of frames that have died for the frames to come, so that a frame costs no allocation once there
// are enough of them. Any thread may call; the mutex in here is a leaf, but for the log's.
class FrameBufferPool {
public:
    // `percent`: the size of a new buffer in percent of what is asked for.
    explicit FrameBufferPool(unsigned int percent) : percent_(percent) {}

    // A buffer of `size` bytes or more; the pooled ones on the way to it that are too small are dropped. Empty for no
    // bytes from an empty pool. Throws std::bad_alloc.
    std::shared_ptr<FrameBuffer> alloc(unsigned int size);
    void free(std::shared_ptr<FrameBuffer> buffer);

    // Gives the memory back, and that of buffers which come until `reopen` as they come.
    void close();
    void reopen();

private:
    friend class PlayTaskPeer;  // lets tests look at what is pooled

    const unsigned int percent_;
    std::mutex mutex_;
    std::deque<std::shared_ptr<FrameBuffer>> buffers_;  // the larger ones to the front; guarded by mutex_
    bool isClosed_ = false;                             // likewise
};

}  // namespace kelp
