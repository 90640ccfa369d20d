#pragma once

#include <memory>

#include "decode/filter_library.h"
#include "decode/picture_colors.h"

namespace kelp {

// Maps pictures whose colours or brightness go beyond BT.709 to what an ordinary screen shows, with libavfilter and
// libzimg. White of 203 cd/m2, as BT.2408 has it, becomes the white of paper, and what is brighter is pressed into the
// rest of the way to the white of the screen.
//
// Nothing is loaded before the first such picture. One thread calls; the library spreads a picture over threads of its
// own, as many as there are processors.
class ToneMapper {
public:
    ToneMapper() = default;
    ~ToneMapper() { release(); }
    ToneMapper(const ToneMapper&) = delete;
    ToneMapper& operator=(const ToneMapper&) = delete;

    // Fills the planes of `frame`, which has the picture's size and is laid out, in limited range. False if it can't be
    // done; for pictures that are alike the log says so once.
    bool map(const AVFrame& picture, const PictureColors::Wide& colors, bool fullRange, const VideoFrameInfo& frame);
    // Frees the filters, but for the library's code. It may go on afterwards.
    void release();

private:
    // What pictures are alike in.
    struct Kind {
        int format;
        int width;   // in pixels
        int height;  // likewise
        PictureColors::Wide colors;
        bool fullRange;
        bool operator==(const Kind&) const = default;
    };
    struct FreeFrame {
        void operator()(AVFrame* frame) const;
    };

    // Makes the filters for pictures of kind_.
    bool build();
    bool run(const AVFrame& picture);

    FilterLibrary library_;
    Kind kind_{};                     // that graph_ was made for, or couldn't be
    bool works_ = false;              // with pictures of kind_
    AVFilterGraph* graph_ = nullptr;  // owns the two below
    AVFilterContext* in_ = nullptr;
    AVFilterContext* out_ = nullptr;
    std::unique_ptr<AVFrame, FreeFrame> input_;
    std::unique_ptr<AVFrame, FreeFrame> output_;
};

}  // namespace kelp
