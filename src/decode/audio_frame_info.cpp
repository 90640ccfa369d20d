#include "decode/audio_frame_info.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kelp {

void AudioFrameInfo::reAllocBuffer(int size) {
    if (!allocBuffer) {
        return;
    }
    auto newBuffer = allocBuffer(static_cast<unsigned int>(size));
    if (!newBuffer) {
        return;
    }
    if (buffer) {
        dataSize = std::min(dataSize, newBuffer->size);
        if (dataSize > 0) {
            std::memcpy(newBuffer->data, buffer->data, dataSize);
        }
        if (freeBuffer) {
            freeBuffer(buffer);
        }
    }
    buffer = std::move(newBuffer);
}

}  // namespace kelp
