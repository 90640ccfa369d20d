#pragma once

namespace kelp {

// How a picture lies in a window of another shape.
enum class PictureFit {
    // An upright one covers the whole window, whatever its ratio; one on its side keeps that of its size.
    Fill,
    // It keeps its ratio as a viewer is to see it, with that of its pixels; beside it is black.
    Keep,
};

}  // namespace kelp
