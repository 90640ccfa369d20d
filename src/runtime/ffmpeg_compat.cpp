#include "runtime/ffmpeg_compat.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "runtime/never_destroyed.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

// From here on a stream's side data lies with its codec parameters, and is copied with them.
#define KELP_PARAMETERS_HOLD_SIDE_DATA (LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 31, 100))

namespace kelp::compat {

namespace {

constexpr size_t kMatrixSize = 9;

#if !KELP_PARAMETERS_HOLD_SIDE_DATA

// The display matrices of all live parameter copies. The release has no room for them in the parameters.
struct MatrixTable {
    std::mutex mutex;
    std::unordered_map<const AVCodecParameters*, std::array<int32_t, kMatrixSize>> matrices;  // guarded by mutex
};

MatrixTable& matrixTable() {
    static NeverDestroyed<MatrixTable> table;
    return *table;
}

#endif

struct FreeParameters {
    void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};

}  // namespace

AVCodecParameters* copyParameters(const AVStream* stream) {
    std::unique_ptr<AVCodecParameters, FreeParameters> copy(avcodec_parameters_alloc());
    if (!copy || avcodec_parameters_copy(copy.get(), stream->codecpar) < 0) {
        return nullptr;
    }
    if (stream->sample_aspect_ratio.num > 0) {
        copy->sample_aspect_ratio = stream->sample_aspect_ratio;
    }
#if !KELP_PARAMETERS_HOLD_SIDE_DATA
    size_t size = 0;
    const uint8_t* data = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (data && size >= kMatrixSize * sizeof(int32_t)) {
        auto& table = matrixTable();
        std::lock_guard lock(table.mutex);
        std::copy_n(reinterpret_cast<const int32_t*>(data), kMatrixSize, table.matrices[copy.get()].begin());
    }
#endif
    return copy.release();
}

AVCodecParameters* copyParameters(const AVCodecParameters& parameters) {
    std::unique_ptr<AVCodecParameters, FreeParameters> copy(avcodec_parameters_alloc());
    if (!copy || avcodec_parameters_copy(copy.get(), &parameters) < 0) {
        return nullptr;
    }
#if !KELP_PARAMETERS_HOLD_SIDE_DATA
    auto& table = matrixTable();
    std::lock_guard lock(table.mutex);
    if (const auto found = table.matrices.find(&parameters); found != table.matrices.end()) {
        const auto matrix = found->second;
        table.matrices[copy.get()] = matrix;
    }
#endif
    return copy.release();
}

void copyDisplayMatrix([[maybe_unused]] const AVCodecParameters& parameters, [[maybe_unused]] AVStream* stream) {
#if !KELP_PARAMETERS_HOLD_SIDE_DATA
    // Elsewhere it is among the parameters' side data, which are copied with them.
    if (const int32_t* const matrix = displayMatrix(&parameters)) {
        if (uint8_t* const data =
                av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, kMatrixSize * sizeof(int32_t))) {
            std::copy_n(matrix, kMatrixSize, reinterpret_cast<int32_t*>(data));
        }
    }
#endif
}

void freeParameters(AVCodecParameters** parameters) {
#if !KELP_PARAMETERS_HOLD_SIDE_DATA
    {
        std::lock_guard lock(matrixTable().mutex);
        matrixTable().matrices.erase(*parameters);
    }
#endif
    avcodec_parameters_free(parameters);
}

const int32_t* displayMatrix(const AVCodecParameters* parameters) {
    if (!parameters) {
        return nullptr;
    }
#if KELP_PARAMETERS_HOLD_SIDE_DATA
    const AVPacketSideData* data =
        av_packet_side_data_get(parameters->coded_side_data, parameters->nb_coded_side_data, AV_PKT_DATA_DISPLAYMATRIX);
    if (!data || !data->data || data->size < kMatrixSize * sizeof(int32_t)) {
        return nullptr;
    }
    return reinterpret_cast<const int32_t*>(data->data);
#else
    auto& table = matrixTable();
    std::lock_guard lock(table.mutex);
    const auto found = table.matrices.find(parameters);
    return found == table.matrices.end() ? nullptr : found->second.data();
#endif
}

int frameFlags(const AVFrame* frame) {
#ifdef AV_FRAME_FLAG_KEY
    return frame->flags;
#else
    constexpr int kKeyFrame = 1 << 1;
    return frame->key_frame ? frame->flags | kKeyFrame : frame->flags & ~kKeyFrame;
#endif
}

void initPacket(AVPacket* packet) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    av_init_packet(packet);
#pragma GCC diagnostic pop
    packet->data = nullptr;
    packet->size = 0;
}

}  // namespace kelp::compat
