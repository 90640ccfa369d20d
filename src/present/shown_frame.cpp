#include "present/shown_frame.h"

#include <algorithm>
#include <cstring>

#include "clock/wrapping_math.h"
#include "decode/decoded_frame.h"

namespace kelp {

namespace {

constexpr int kCountBits = 16;
constexpr uint64_t kCountMask = (uint64_t{1} << kCountBits) - 1;

// Takes the picture for planar 4:2:0 with tightly packed planes.
void blank(FrameBuffer& buffer, int32_t width, int32_t height) {
    constexpr int kBlackLuma = 0;
    constexpr int kNoColor = 128;
    if (!buffer.data || width <= 0 || height <= 0) {
        return;
    }
    const int64_t capacity = buffer.size;
    const int64_t pixels = static_cast<int64_t>(width) * height;
    const int64_t luma = std::min(pixels, capacity);
    // Two planes of a quarter each, the second right behind the first.
    const int64_t chroma = std::min(pixels / 4 * 2, capacity - luma);
    std::memset(buffer.data, kBlackLuma, static_cast<size_t>(luma));
    std::memset(buffer.data + luma, kNoColor, static_cast<size_t>(chroma));
}

// Moves the picture out of memory that others read.
void moveIntoOwnBlock(VideoFrameInfo& frame) {
    auto block = std::make_shared<FrameBuffer>();
    block->size = static_cast<unsigned int>(frame.width * frame.height * 3 / 2);
    block->data = new unsigned char[block->size]();
    frame.layOutIn(block->data);
    frame.buffer = std::move(block);
    frame.decoderMemory = {};
}

}  // namespace

// A picture that is shown again keeps its id, and with it the requests to blank it.
void ShownFrame::set(const std::shared_ptr<VideoFrameInfo>& frame) {
    if (frame != frame_) {
        auto before = frame;  // and its block goes back behind the lock
        {
            std::lock_guard lock(mutex_);
            frame_.swap(before);
        }
        id_.store(id_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
}

std::shared_ptr<const VideoFrameInfo> ShownFrame::lend() {
    std::lock_guard lock(mutex_);
    if (!frame_ || frame_->pixFormat == PIX_FMT_PACKET) {
        return nullptr;
    }
    frame_->isLent = true;
    return VideoFrameInfo::share(frame_);
}

void ShownFrame::requestBlank() {
    const uint64_t id = id_.load(std::memory_order_relaxed);
    if (id == 0) {
        return;
    }
    uint64_t request = request_.load(std::memory_order_relaxed);
    uint64_t wanted = 0;
    do {
        const uint64_t requestedId = request >> kCountBits;
        const bool isFull = (request & kCountMask) == kCountMask;
        if (requestedId > id || (requestedId == id && isFull)) {
            return;  // another thread has seen a newer picture, or nothing was drawn for ages
        }
        wanted = (requestedId == id ? request : id << kCountBits) + 1;
    } while (!request_.compare_exchange_weak(request, wanted, std::memory_order_relaxed));
}

void ShownFrame::carryOutBlanks(std::unique_lock<std::mutex> lock) {
    const uint64_t id = id_.load(std::memory_order_relaxed);
    if (request_.load(std::memory_order_relaxed) >> kCountBits != id || id == 0) {
        return;
    }
    const uint64_t count = request_.exchange(0, std::memory_order_relaxed) & kCountMask;
    {
        std::lock_guard own(mutex_);
        if (frame_->decoderMemory[0] || (frame_->isLent && frame_->buffer)) {
            moveIntoOwnBlock(*frame_);
            frame_->isLent = false;
        }
        if (frame_->buffer) {
            blank(*frame_->buffer, frame_->width, frame_->height);
        }
    }
    if (lock.mutex()) {
        lock.lock();
    }
    frame_->pts = wrappingSubtract(frame_->pts, static_cast<int64_t>(count));
    frame_->isBlanked = true;
}

}  // namespace kelp
