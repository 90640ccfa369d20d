#include "present/fitted_rectangle.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace kelp {

namespace {

// `length` * `part` / `whole`, to the nearest, at least one pixel.
int scaled(int64_t length, int64_t part, int64_t whole) {
    return static_cast<int>(std::max<int64_t>((length * part + whole / 2) / whole, 1));
}

}  // namespace

int quarterTurns(int rotate) {
    constexpr int kTurn = 360;
    constexpr int kQuarter = 90;
    return ((rotate % kTurn + kTurn) % kTurn + kQuarter / 2) / kQuarter % 4;
}

FittedRectangle FittedRectangle::of(const VideoFrameInfo& frame, int outputWidth, int outputHeight) {
    // As seen, in units of which both are whole numbers.
    int64_t width = int64_t{frame.width} * frame.pixelWidth;
    int64_t height = int64_t{frame.height} * frame.pixelHeight;
    const bool isTurned = isOnItsSide(frame.rotate);
    if (isTurned) {
        std::swap(width, height);
    }
    FittedRectangle fitted{0, 0, outputWidth, outputHeight};
    if (width <= 0 || height <= 0 || outputWidth <= 0 || outputHeight <= 0) {
        return fitted;
    }
    const bool isHigher = outputWidth * height > outputHeight * width;
    int& shorter = isHigher ? fitted.width : fitted.height;
    shorter = isHigher ? scaled(outputHeight, width, height) : scaled(outputWidth, height, width);
    if (isTurned && (fitted.width - fitted.height) % 2 != 0) {
        shorter += shorter > 1 ? -1 : 1;  // or its edges would lie between two pixels before it is turned
    }
    fitted.x = (outputWidth - fitted.width) / 2;
    fitted.y = (outputHeight - fitted.height) / 2;
    return fitted;
}

FittedRectangle FittedRectangle::beforeTurning() const {
    return {x + (width - height) / 2, y + (height - width) / 2, height, width};
}

}  // namespace kelp
