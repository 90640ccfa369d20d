#pragma once

#include <string>

#include "decode/video_frame_info.h"

namespace kelp {

// Writes the picture into the file at `path` as PNG: with square pixels, the side that its own are longer on stretched;
// turned by the nearest quarter; in the colours that its range and matrix stand for. A picture whose matrix isn't
// stated is taken for BT.601 up to 576 lines, above for BT.709, as in a window. False, with a line in the log, and no
// part of a file if it can't be done. Any thread.
bool writeSnapshot(const VideoFrameInfo& picture, const std::string& path);

}  // namespace kelp
