#include "present/video_frames.h"

#include <cstring>

#include "decode/decoded_frame.h"

namespace kelp::test {

namespace {

std::shared_ptr<FrameBuffer> makeBuffer(size_t size) {
    auto buffer = std::make_shared<FrameBuffer>();
    buffer->data = new unsigned char[size]();
    buffer->size = static_cast<unsigned int>(size);
    return buffer;
}

}  // namespace

std::shared_ptr<VideoFrameInfo> makePicture(int64_t pts, int width, int height, Yuv color) {
    auto frame = std::make_shared<VideoFrameInfo>();
    const int chroma = (width >> 1) * (height >> 1);
    frame->buffer = makeBuffer(static_cast<size_t>(width * height * 3 / 2));
    frame->frameTag = 0;
    frame->pts = pts;
    frame->duration = 40;
    frame->pixFormat = PIX_FMT_YUV420P;
    frame->colorRange = 0;
    frame->colorSpace = 0;
    frame->data[0] = frame->buffer->data;
    frame->data[1] = frame->data[0] + width * height;
    frame->data[2] = frame->data[1] + chroma;
    frame->linesize[0] = width;
    frame->linesize[1] = width >> 1;
    frame->linesize[2] = width >> 1;
    frame->width = width;
    frame->height = height;
    frame->keyFrame = false;
    frame->rotate = 0;
    std::memset(frame->data[0], color.y, static_cast<size_t>(width * height));
    std::memset(frame->data[1], color.u, static_cast<size_t>(chroma));
    std::memset(frame->data[2], color.v, static_cast<size_t>(chroma));
    return frame;
}

std::shared_ptr<VideoFrameInfo> makePacketPicture(int64_t pts, const std::string& bytes) {
    auto frame = std::make_shared<VideoFrameInfo>();
    frame->buffer = makeBuffer(bytes.size());
    std::memcpy(frame->buffer->data, bytes.data(), bytes.size());
    frame->frameTag = pts * 90;
    frame->pts = pts;
    frame->duration = 0;
    frame->pixFormat = PIX_FMT_PACKET;
    frame->data[0] = frame->buffer->data;
    frame->linesize[0] = static_cast<int32_t>(bytes.size());
    // What nobody sets holds anything.
    for (int plane = 1; plane < 8; ++plane) {
        frame->data[plane] = reinterpret_cast<uint8_t*>(0x10);
        frame->linesize[plane] = 1 << 20;
    }
    frame->width = 0;
    frame->height = 0;
    frame->colorRange = 0;
    frame->colorSpace = 0;
    frame->keyFrame = false;
    frame->rotate = 0;
    return frame;
}

std::vector<int> blockOf(const VideoFrameInfo& frame) {
    return {frame.buffer->data, frame.buffer->data + frame.buffer->size};
}

std::vector<int> blockWith(int pixels, int y, int c) {
    std::vector<int> block(static_cast<size_t>(pixels), y);
    block.resize(static_cast<size_t>(pixels + pixels / 4 * 2), c);
    return block;
}

}  // namespace kelp::test
