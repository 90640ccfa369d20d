#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// A copy of a planar 4:2:0 picture with packed rows; the chroma planes are width / 2 by height / 2.
struct Picture {
    int width = 0;
    int height = 0;
    int rotate = 0;  // clockwise, in degrees
    std::array<std::vector<uint8_t>, 3> planes;
};

// Writes `picture`, turned upright, as a PNG file. False with the reason in `error` if it can't.
bool writePng(const Picture& picture, const std::string& path, std::string& error);
