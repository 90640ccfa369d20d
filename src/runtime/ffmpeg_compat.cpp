#include "runtime/ffmpeg_compat.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "runtime/never_destroyed.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/mastering_display_metadata.h>
}

// From here on a stream's side data lies with its codec parameters, and is copied with them.
#define KELP_PARAMETERS_HOLD_SIDE_DATA (LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 31, 100))

namespace kelp::compat {

namespace {

constexpr size_t kMatrixSize = 9;

#if KELP_PARAMETERS_HOLD_SIDE_DATA

// Null unless there is so much.
const uint8_t* sideData(const AVCodecParameters* parameters, AVPacketSideDataType type, size_t size) {
    if (!parameters) {
        return nullptr;
    }
    const AVPacketSideData* data =
        av_packet_side_data_get(parameters->coded_side_data, parameters->nb_coded_side_data, type);
    return data && data->size >= size ? data->data : nullptr;
}

#else

constexpr std::array kKept = {AV_PKT_DATA_DISPLAYMATRIX, AV_PKT_DATA_CONTENT_LIGHT_LEVEL,
                              AV_PKT_DATA_MASTERING_DISPLAY_METADATA};
using SideData = std::array<std::vector<uint8_t>, kKept.size()>;  // of each kind in its place; empty for none

// The side data of all live parameter copies. The release has no room for them in the parameters.
struct SideDataTable {
    std::mutex mutex;
    std::unordered_map<const AVCodecParameters*, SideData> entries;  // guarded by mutex
};

SideDataTable& sideDataTable() {
    static NeverDestroyed<SideDataTable> table;
    return *table;
}

// Null unless there is so much.
const uint8_t* sideData(const AVCodecParameters* parameters, AVPacketSideDataType type, size_t size) {
    auto& table = sideDataTable();
    std::lock_guard lock(table.mutex);
    const auto found = table.entries.find(parameters);
    if (found == table.entries.end()) {
        return nullptr;
    }
    const auto& data = found->second[static_cast<size_t>(std::ranges::find(kKept, type) - kKept.begin())];
    return data.size() >= size ? data.data() : nullptr;
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
    for (size_t i = 0; i < kKept.size(); ++i) {
        size_t size = 0;
        if (const uint8_t* const data = av_stream_get_side_data(stream, kKept[i], &size)) {
            auto& table = sideDataTable();
            std::lock_guard lock(table.mutex);
            table.entries[copy.get()][i].assign(data, data + size);
        }
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
    auto& table = sideDataTable();
    std::lock_guard lock(table.mutex);
    if (const auto found = table.entries.find(&parameters); found != table.entries.end()) {
        auto kept = found->second;
        table.entries[copy.get()] = std::move(kept);
    }
#endif
    return copy.release();
}

void copySideData([[maybe_unused]] const AVCodecParameters& parameters, [[maybe_unused]] AVStream* stream) {
#if !KELP_PARAMETERS_HOLD_SIDE_DATA
    // Elsewhere they are copied with the parameters.
    auto& table = sideDataTable();
    std::lock_guard lock(table.mutex);
    const auto found = table.entries.find(&parameters);
    for (size_t i = 0; found != table.entries.end() && i < kKept.size(); ++i) {
        const auto& kept = found->second[i];
        if (uint8_t* const data = kept.empty() ? nullptr : av_stream_new_side_data(stream, kKept[i], kept.size())) {
            std::ranges::copy(kept, data);
        }
    }
#endif
}

void freeParameters(AVCodecParameters** parameters) {
#if !KELP_PARAMETERS_HOLD_SIDE_DATA
    {
        std::lock_guard lock(sideDataTable().mutex);
        sideDataTable().entries.erase(*parameters);
    }
#endif
    avcodec_parameters_free(parameters);
}

const int32_t* displayMatrix(const AVCodecParameters* parameters) {
    return reinterpret_cast<const int32_t*>(
        sideData(parameters, AV_PKT_DATA_DISPLAYMATRIX, kMatrixSize * sizeof(int32_t)));
}

const AVContentLightMetadata* contentLight(const AVCodecParameters* parameters) {
    return reinterpret_cast<const AVContentLightMetadata*>(
        sideData(parameters, AV_PKT_DATA_CONTENT_LIGHT_LEVEL, sizeof(AVContentLightMetadata)));
}

const AVMasteringDisplayMetadata* masteringDisplay(const AVCodecParameters* parameters) {
    return reinterpret_cast<const AVMasteringDisplayMetadata*>(
        sideData(parameters, AV_PKT_DATA_MASTERING_DISPLAY_METADATA, sizeof(AVMasteringDisplayMetadata)));
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
