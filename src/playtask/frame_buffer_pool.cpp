#include "playtask/frame_buffer_pool.h"

#include <algorithm>
#include <utility>

#include "kelp_player/log.h"

namespace kelp {

constexpr const char* kTag = "PlayTask";

std::shared_ptr<FrameBuffer> FrameBufferPool::alloc(unsigned int size) {
    std::lock_guard lock(mutex_);
    while (!buffers_.empty()) {
        auto buffer = std::move(buffers_.front());
        buffers_.pop_front();
        if (buffer->size >= size) {
            return buffer;
        }
        Log::Debug(kTag, "%s, delete buffer from pool, size not match, request:%u, buffer:%u\n", "allocFrameBuffer",
                   size, buffer->size);
    }
    if (size == 0) {
        return nullptr;
    }
    Log::Debug(kTag, "%s, no buffer from pool, dataSize:%u\n", "allocFrameBuffer", size);
    // 32-bit arithmetic, which wraps for a huge request: that one gets what it asked for.
    const unsigned int capacity = std::max(size * percent_ / 100, size);
    auto buffer = std::make_shared<FrameBuffer>();
    buffer->data = new unsigned char[capacity];
    buffer->size = capacity;
    return buffer;
}

void FrameBufferPool::free(std::shared_ptr<FrameBuffer> buffer) {
    std::lock_guard lock(mutex_);
    if (!buffer || isClosed_) {
        return;
    }
    // The front is where `alloc` looks first.
    if (buffers_.empty() || buffer->size < buffers_.front()->size) {
        buffers_.push_back(std::move(buffer));
    } else {
        buffers_.push_front(std::move(buffer));
    }
}

// Unmapping takes long: nobody waits for the lock meanwhile.
void FrameBufferPool::close() {
    std::deque<std::shared_ptr<FrameBuffer>> idle;
    std::lock_guard lock(mutex_);
    isClosed_ = true;
    buffers_.swap(idle);
}

void FrameBufferPool::reopen() {
    std::lock_guard lock(mutex_);
    isClosed_ = false;
}

}  // namespace kelp
