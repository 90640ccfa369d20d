#pragma once

#include <memory>

struct AVFrame;
struct AVPixFmtDescriptor;

namespace kelp {

// Puts pictures with alpha on black. The conversion library's own way knows no limited range, and is coarse in 8 bits.
// One thread.
class BlackBackground {
public:
    // The picture on black, of the same format and size, whose alpha counts no longer; null if there is no memory. It
    // stays as it is until the next call. `fullRange` is what luma is of.
    const AVFrame* put(const AVFrame& picture, bool fullRange);
    // Frees the memory. It may go on afterwards.
    void release() { result_.reset(); }

private:
    struct FreeFrame {
        void operator()(AVFrame* frame) const;
    };

    bool resize(const AVFrame& picture);

    std::unique_ptr<AVFrame, FreeFrame> result_;
};

}  // namespace kelp
