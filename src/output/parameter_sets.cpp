#include "output/parameter_sets.h"

#include <algorithm>

#include "output/parameter_counts.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
}

namespace kelp {

namespace {

struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

}  // namespace

void FreeParameterSetsFilter::operator()(AVBSFContext* context) const {
    av_bsf_free(&context);
}

ParameterSets::ParameterSets(const AVCodecParameters& parameters) : codecId_(parameters.codec_id) {
    // A configuration record, as MP4 and Matroska have it, begins with its version.
    const bool hasRecord = parameters.extradata_size > 0 && parameters.extradata[0] == 1;
    const bool isKnown = codecId_ == AV_CODEC_ID_H264 || codecId_ == AV_CODEC_ID_HEVC || codecId_ == AV_CODEC_ID_VVC;
    if (!isKnown || hasRecord) {
        return;
    }
    AVBSFContext* context = nullptr;
    if (av_bsf_alloc(av_bsf_get_by_name("extract_extradata"), &context) < 0) {
        return;
    }
    filter_.reset(context);
    if (avcodec_parameters_copy(context->par_in, &parameters) < 0 || av_bsf_init(context) < 0) {
        filter_.reset();
        return;
    }
    const std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
    if (packet && av_new_packet(packet.get(), parameters.extradata_size) >= 0) {
        std::copy_n(parameters.extradata, parameters.extradata_size, packet->data);
        described_ = in(*packet);
    }
}

std::vector<uint8_t> ParameterSets::in(const AVPacket& packet) {
    const std::unique_ptr<AVPacket, FreePacket> copy(filter_ ? av_packet_clone(&packet) : nullptr);
    if (!copy || av_bsf_send_packet(filter_.get(), copy.get()) < 0 ||
        av_bsf_receive_packet(filter_.get(), copy.get()) < 0) {
        return {};
    }
    size_t size = 0;
    const uint8_t* const sets = av_packet_get_side_data(copy.get(), AV_PKT_DATA_NEW_EXTRADATA, &size);
    return sets && areCountsBounded(codecId_, {sets, size}) ? std::vector<uint8_t>(sets, sets + size)
                                                            : std::vector<uint8_t>();
}

}  // namespace kelp
