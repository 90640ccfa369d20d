#include "decode/video_test_support.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/display.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "decode/decoded_frame.h"
#include "input/codec_tables.h"
#include "runtime/ffmpeg_compat.h"
#include "support/temp_files.h"

namespace kelp::test {

namespace {

constexpr unsigned int kTailBytes = 4096;
constexpr unsigned char kTailByte = 0xA5;

struct CloseInput {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};

std::vector<std::vector<uint8_t>> readPictures(const std::string& file, int width, int height) {
    std::ifstream stream(file, std::ios::binary);
    const std::vector<uint8_t> all((std::istreambuf_iterator<char>(stream)), {});
    const auto size = static_cast<size_t>(width * height + 2 * ((width + 1) / 2) * ((height + 1) / 2));
    std::vector<std::vector<uint8_t>> pictures;
    for (size_t at = 0; at + size <= all.size(); at += size) {
        pictures.emplace_back(all.begin() + static_cast<ptrdiff_t>(at),
                              all.begin() + static_cast<ptrdiff_t>(at + size));
    }
    return pictures;
}

}  // namespace

void FreeVideoParameters::operator()(AVCodecParameters* parameters) const {
    compat::freeParameters(&parameters);
}

std::vector<uint8_t> VideoStream::expected(size_t index) const {
    const auto& picture = pictures.at(index);
    std::vector<uint8_t> bytes(picture.begin(), picture.begin() + width * height);
    const int chromaWidth = (width + 1) / 2;
    const int chromaHeight = (height + 1) / 2;
    for (int plane = 0; plane < 2; ++plane) {
        for (int row = 0; row < height / 2; ++row) {
            const auto from = picture.begin() + width * height + (plane * chromaHeight + row) * chromaWidth;
            bytes.insert(bytes.end(), from, from + width / 2);
        }
    }
    return bytes;
}

VideoStream makeVideoStream(const std::string& encoderOptions, const std::string& extension, int width, int height,
                            int frames, bool turned) {
    const TempFolder folder;
    std::string file = folder.path("picture." + extension);
    const std::string raw = folder.path("picture.yuv");
    runFFmpeg("-f lavfi -i testsrc=size=" + std::to_string(width) + "x" + std::to_string(height) +
              ":rate=25 -frames:v " + std::to_string(frames) + " " + encoderOptions + " " + file);
    if (turned) {
        // The command's way to a display matrix changed with its release 6.
        const bool byInput = AV_VERSION_MAJOR(avformat_version()) >= 60;
        const std::string copy = folder.path("copy." + extension);
        runFFmpeg((byInput ? "-display_rotation 270 -i " : "-i ") + file + " -c copy " +
                  (byInput ? "" : "-metadata:s:v rotate=270 ") + copy);
        file = copy;
    }
    runFFmpeg("-noautorotate -i " + file +
              " -fps_mode passthrough -vf scale=out_range=tv:flags=bicubic,format=yuv420p -f rawvideo " + raw);

    AVFormatContext* opened = nullptr;
    if (avformat_open_input(&opened, file.c_str(), nullptr, nullptr) < 0) {
        throw std::runtime_error("can't open " + file);
    }
    const std::unique_ptr<AVFormatContext, CloseInput> input(opened);
    if (avformat_find_stream_info(input.get(), nullptr) < 0 || input->nb_streams != 1) {
        throw std::runtime_error("no stream in " + file);
    }
    const AVStream* stream = input->streams[0];
    VideoStream result{videoCodecTypeFromId(stream->codecpar->codec_id),
                       pixFormatFromAv(stream->codecpar->format),
                       width,
                       height,
                       VideoParametersPtr(compat::copyParameters(stream)),
                       {},
                       readPictures(raw, width, height)};
    AVPacket* read = av_packet_alloc();
    while (av_read_frame(input.get(), read) >= 0) {
        auto packet = makeVideoPacket(read->pts, read->size);
        std::memcpy(packet->data, read->data, static_cast<size_t>(read->size));
        packet->dts = read->dts;
        packet->duration = read->duration;
        packet->timeBaseNum = stream->time_base.num;
        packet->timeBaseDen = stream->time_base.den;
        packet->flags = read->flags;
        packet->keyFrame = (read->flags & AV_PKT_FLAG_KEY) != 0;
        result.packets.push_back(std::move(packet));
        av_packet_unref(read);
    }
    av_packet_free(&read);
    return result;
}

std::shared_ptr<VideoPacket> makeVideoPacket(int64_t pts, int size) {
    auto packet = std::make_shared<VideoPacket>();
    packet->data = new unsigned char[static_cast<size_t>(size)]();
    packet->size = size;
    packet->pts = pts;
    packet->dts = pts;
    packet->timeBaseDen = 1000;
    return packet;
}

std::shared_ptr<VideoPacket> makeEndPacket(bool foundKeyFrame) {
    auto packet = std::make_shared<VideoPacket>();
    packet->foundKeyFrame = foundKeyFrame;
    return packet;
}

std::shared_ptr<VideoPacket> makeFlushPacket() {
    auto packet = std::make_shared<VideoPacket>();
    packet->flush = true;
    return packet;
}

VideoFramePtr makePicture(int64_t pts, int width, int height, AVPixelFormat format) {
    VideoFramePtr picture(av_frame_alloc());
    picture->format = format;
    picture->width = width;
    picture->height = height;
    picture->pts = pts;
    picture->best_effort_timestamp = pts;
    if (av_frame_get_buffer(picture.get(), 0) < 0) {
        throw std::runtime_error("no memory for a picture");
    }
    for (int i = 0; i < AV_NUM_DATA_POINTERS && picture->buf[i]; ++i) {
        for (size_t at = 0; at < static_cast<size_t>(picture->buf[i]->size); ++at) {
            picture->buf[i]->data[at] = static_cast<uint8_t>(at * 7 + static_cast<size_t>(i) * 50);
        }
    }
    return picture;
}

void addDisplayMatrix(AVFrame* picture, double clockwise, Mirror mirror) {
    AVFrameSideData* data = av_frame_new_side_data(picture, AV_FRAME_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t));
    auto* const matrix = reinterpret_cast<int32_t*>(data->data);
    av_display_rotation_set(matrix, clockwise);
    av_display_matrix_flip(matrix, mirror == Mirror::LeftToRight, mirror == Mirror::TopToBottom);
}

std::vector<uint8_t> planesOf(const VideoFrameInfo& frame) {
    std::vector<uint8_t> bytes;
    for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane == 0 ? frame.height : frame.height / 2;
        const int width = plane == 0 ? frame.width : frame.width / 2;
        for (int row = 0; row < rows; ++row) {
            const uint8_t* from = frame.data[plane] + row * frame.linesize[plane];
            bytes.insert(bytes.end(), from, from + width);
        }
    }
    return bytes;
}

void RecordingVideoObserver::onVideoDecoded(std::shared_ptr<VideoFrameInfo> frame) {
    if (frame->buffer) {
        const unsigned char* tail = frame->buffer->data + frame->buffer->size;
        tailsWrittenTo += !std::all_of(tail, tail + kTailBytes, [](unsigned char byte) { return byte == kTailByte; });
    }
    frames.push_back(std::move(frame));
}

std::shared_ptr<FrameBuffer> RecordingVideoObserver::allocPixBuffer(unsigned int size) {
    sizesAsked.push_back(size);
    if (refuseBuffers) {
        return nullptr;
    }
    auto buffer = std::make_shared<FrameBuffer>();
    buffer->data = new unsigned char[size + kTailBytes];
    buffer->size = size;
    std::memset(buffer->data, kTailByte, size + kTailBytes);
    return buffer;
}

void RecordingVideoObserver::freePixBuffer(std::shared_ptr<FrameBuffer> buffer) {
    buffersGivenBack.push_back(std::move(buffer));
}

std::vector<int64_t> RecordingVideoObserver::times() const {
    std::vector<int64_t> result;
    for (const auto& frame : frames) {
        result.push_back(frame->pts);
    }
    return result;
}

std::vector<int64_t> RecordingVideoObserver::durations() const {
    std::vector<int64_t> result;
    for (const auto& frame : frames) {
        result.push_back(frame->duration);
    }
    return result;
}

}  // namespace kelp::test
