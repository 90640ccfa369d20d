#pragma once

#include <cstdint>
#include <memory>

#include "decode/picture_scaler.h"

struct AVCodecParameters;
struct AVFrame;

namespace kelp {

struct PlaybackOptions;
class VideoFrameInfo;

// Brings decoded pictures, of whatever format, into planar 4:2:0 of 8 bits, and says of which range and matrix they
// are. This is the standard form, which gives each frame the label of the picture that it was made from, and leaves the
// colours to the conversion library.
//
// One thread.
class PictureConverter {
public:
    virtual ~PictureConverter() = default;

    // The form that is asked for; never null.
    static std::unique_ptr<PictureConverter> create(const PlaybackOptions& options);

    // What the container says of the stream that the pictures from now on are from.
    virtual void setParameters(const AVCodecParameters& /*parameters*/) {}
    // How the pictures from now on are to be shown: a display matrix of nine values. Turning them is not done here.
    virtual void setDisplayMatrix(const int32_t* /*matrix*/) {}
    // Writes range and matrix of `picture`'s frame into it.
    virtual void label(const AVFrame& picture, VideoFrameInfo& frame) const;
    // Whether a planar 4:2:0 picture of 8 bits is right as it is, with that label.
    virtual bool keeps(const AVFrame& /*picture*/) const { return true; }
    // Fills the planes of `frame`, which has the picture's size and is laid out. False, with a line in the log, if it
    // can't be done.
    virtual bool convert(const AVFrame& picture, const VideoFrameInfo& frame);
    // Frees what is kept from picture to picture.
    virtual void release() { scaler_.release(); }

protected:
    PictureScaler scaler_;
};

}  // namespace kelp
