#include "decode/tone_mapper.h"

#include <string>

#include "decode/padded_picture.h"
#include "decode/video_frame_info.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

namespace kelp {

namespace {

constexpr char kTag[] = "ToneMapper";
const std::string kWhiteNits = "203";

std::string number(int value) {
    return std::to_string(value);
}

}  // namespace

void ToneMapper::FreeFrame::operator()(AVFrame* frame) const {
    av_frame_free(&frame);
}

bool ToneMapper::map(const AVFrame& picture, const PictureColors::Wide& colors, bool fullRange,
                     const VideoFrameInfo& frame) {
    const Kind kind{picture.format, picture.width, picture.height, colors, fullRange};
    if (kind == kind_ && !works_) {
        return false;
    }
    if (kind != kind_) {
        release();
        kind_ = kind;
        works_ = build();
    }
    works_ = works_ && run(picture);
    if (!works_) {
        Log::Warn(kTag, "%s, can't map the colours of %dx%d %s, they are converted plainly\n", "map", kind.width,
                  kind.height, av_get_pix_fmt_name(static_cast<AVPixelFormat>(kind.format)));
        return false;
    }
    copyPlanes(output_->data, output_->linesize, frame);
    av_frame_unref(output_.get());
    return true;
}

bool ToneMapper::build() {
    const auto& [format, width, height, colors, fullRange] = kind_;
    input_.reset(av_frame_alloc());
    output_.reset(av_frame_alloc());
    if (!input_ || !output_ || !library_.load() || !(graph_ = library_.allocGraph())) {
        return false;
    }
    // libzimg takes whole chroma samples only; what is added at an odd edge isn't copied.
    std::string text = "buffer@in=video_size=" + number(width) + "x" + number(height) + ":pix_fmt=" + number(format) +
                       ":time_base=1/1000,";
    if ((width | height) & 1) {
        text += "pad=iw+mod(iw\\,2):ih+mod(ih\\,2),";
    }
    text += "zscale=min=" + number(colors.matrix) + ":tin=" + number(colors.transfer) +
            ":pin=" + number(colors.primaries) + ":rin=" + (fullRange ? "full" : "limited");
    if (colors.peakNits) {
        text += ":p=bt709:t=linear:npl=" + kWhiteNits +
                ",format=gbrpf32le,tonemap=mobius:desat=0:peak=" + number(colors.peakNits) + "/" + kWhiteNits +
                ",zscale=t=bt709:m=bt709:r=limited:d=ordered";
    } else {
        text += ":p=bt709:t=bt709:m=bt709:r=limited:d=ordered";
    }
    text += ",format=yuv420p,buffersink@out";
    AVFilterInOut* openInputs = nullptr;
    AVFilterInOut* openOutputs = nullptr;
    const int parsed = library_.parse(graph_, text.c_str(), &openInputs, &openOutputs);
    library_.freeEnds(&openInputs);
    library_.freeEnds(&openOutputs);
    in_ = library_.getFilter(graph_, "buffer@in");
    out_ = library_.getFilter(graph_, "buffersink@out");
    return parsed >= 0 && in_ && out_ && library_.configure(graph_, nullptr) >= 0;
}

bool ToneMapper::run(const AVFrame& picture) {
    if (av_frame_ref(input_.get(), &picture) < 0) {
        return false;
    }
    // The filters are told already, and don't look for a change then.
    input_->color_range = AVCOL_RANGE_UNSPECIFIED;
    input_->colorspace = AVCOL_SPC_UNSPECIFIED;
    input_->color_primaries = AVCOL_PRI_UNSPECIFIED;
    input_->color_trc = AVCOL_TRC_UNSPECIFIED;
    const bool done = library_.addFrame(in_, input_.get(), 0) >= 0 && library_.getFrame(out_, output_.get()) >= 0;
    av_frame_unref(input_.get());
    return done;
}

void ToneMapper::release() {
    if (graph_) {
        library_.freeGraph(&graph_);
    }
    in_ = out_ = nullptr;
    kind_ = {};
    works_ = false;
}

}  // namespace kelp
