#pragma once

#include "decode/black_background.h"
#include "decode/picture_converter.h"
#include "decode/tone_mapper.h"

namespace kelp {

// The form whose planes and labels agree, see PictureColors: pictures of every format are right in colour, transparent
// ones stand on black, and what goes beyond BT.709 is mapped to it. What a display matrix mirrors is put upside down
// here; with the matrix's rotation, which the frame carries, it is as it should be.
//
// A planar 4:2:0 picture of 8 bits in limited range costs no more than in the standard form.
class TrueColorConverter : public PictureConverter {
public:
    void setParameters(const AVCodecParameters& parameters) override;
    void setDisplayMatrix(const int32_t* matrix) override;
    void label(const AVFrame& picture, VideoFrameInfo& frame) const override;
    bool keeps(const AVFrame& picture) const override;
    bool convert(const AVFrame& picture, const VideoFrameInfo& frame) override;
    void release() override;

private:
    bool fill(const AVFrame& picture, const VideoFrameInfo& frame);

    ToneMapper toneMapper_;
    BlackBackground background_;
    bool isMirrored_ = false;
    int statedPeakNits_ = 0;  // as PictureColors takes it
};

}  // namespace kelp
