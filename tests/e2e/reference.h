#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace kelp::test {

// The pictures of a file as the ffmpeg command decodes them: raw planar 4:2:0, 8 bits, in the order of showing.
class ReferencePictures {
public:
    // `scaling`: more options for the filter that converts other formats, as ":flags=bicubic".
    explicit ReferencePictures(const std::string& path, const std::string& scaling = "");

    // Reads the next picture of this size into `bytes`; chroma planes are rounded up where a size is odd. False at
    // the end.
    bool next(int width, int height, std::vector<uint8_t>& bytes);

private:
    struct Close {
        void operator()(FILE* pipe) const { pclose(pipe); }
    };
    std::unique_ptr<FILE, Close> pipe_;
};

// Brings a reference picture to the player's layout, whose chroma rows are width / 2 bytes and height / 2 rows.
std::vector<uint8_t> cropChroma(const std::vector<uint8_t>& reference, int width, int height);

// Peak signal-to-noise ratio of two pictures of 8 bits, in decibels; 100 for equal ones.
double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b);

}  // namespace kelp::test
