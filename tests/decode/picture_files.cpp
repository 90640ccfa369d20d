#include "decode/picture_files.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace kelp::test {

namespace {

constexpr size_t kGuardBytes = 4096;
constexpr uint8_t kGuardByte = 0xA5;
constexpr const char* kFlags = "flags=bicubic+accurate_rnd+full_chroma_int+full_chroma_inp";

std::string rawInput(AVPixelFormat format, int width, int height, const std::string& file) {
    return std::string("-f rawvideo -pix_fmt ") + av_get_pix_fmt_name(format) + " -s " + std::to_string(width) + "x" +
           std::to_string(height) + " -i " + file + " ";
}

std::vector<uint8_t> bytesOf(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace

Rgb barColor(int bar) {
    constexpr std::array<Rgb, kBars> kColors{{{255, 255, 255},
                                              {230, 210, 30},
                                              {30, 200, 220},
                                              {40, 180, 50},
                                              {190, 40, 180},
                                              {200, 40, 30},
                                              {40, 50, 190},
                                              {0, 0, 0}}};
    return kColors[static_cast<size_t>(bar)];
}

PictureFile::PictureFile(AVPixelFormat format, int width, int height, const std::string& scale,
                         const std::string& filters)
    : format_(format), width_(width), height_(height) {
    const std::string bars = folder_.path("bars.rgb");
    std::ofstream stream(bars, std::ios::binary);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const Rgb color = barColor(x * kBars / width);
            for (const int part : {color.red, color.green, color.blue}) {
                stream.put(static_cast<char>(part));
            }
        }
    }
    stream.close();
    runFFmpeg(rawInput(AV_PIX_FMT_RGB24, width, height, bars) + "-vf \"format=gbrp16le," +
              (filters.empty() ? "" : filters + ",") + "scale=" + (scale.empty() ? "" : scale + ":") + kFlags +
              ",format=" + av_get_pix_fmt_name(format) + "\" -f rawvideo " + folder_.path("picture"));
}

VideoFramePtr PictureFile::read() const {
    const auto bytes = bytesOf(folder_.path("picture"));
    VideoFramePtr picture = makePicture(0, width_, height_, format_);
    uint8_t* data[4] = {};
    int linesize[4] = {};
    const int size = av_image_fill_arrays(data, linesize, bytes.data(), format_, width_, height_, 1);
    if (size < 0 || bytes.size() < static_cast<size_t>(size)) {
        throw std::runtime_error(std::string("no picture of ") + av_get_pix_fmt_name(format_));
    }
    av_image_copy(picture->data, picture->linesize, const_cast<const uint8_t**>(data), linesize, format_, width_,
                  height_);
    return picture;
}

std::vector<uint8_t> PictureFile::filtered(const std::string& filters) const {
    const std::string out = folder_.path("filtered");
    runFFmpeg(rawInput(format_, width_, height_, folder_.path("picture")) + "-vf \"" + filters +
              ",format=yuv420p\" -f rawvideo " + out);
    VideoStream stream{};
    stream.width = width_;
    stream.height = height_;
    stream.pictures.push_back(bytesOf(out));
    return stream.expected(0);
}

Rgb shownColor(const VideoFrameInfo& frame, int bar) {
    const int x = (2 * bar + 1) * frame.width / (2 * kBars);
    const int y = frame.height / 2;
    const auto sample = [&](int plane, int shift) {
        return static_cast<double>(frame.data[plane][(y >> shift) * frame.linesize[plane] + (x >> shift)]);
    };
    const bool isFull = frame.colorRange == 2;
    const bool isBt709 = !isFull && (frame.colorSpace == 1 || (frame.colorSpace == 0 && frame.height > 576));
    const double kr = isBt709 ? 0.2126 : 0.299;
    const double kb = isBt709 ? 0.0722 : 0.114;
    const double luma = isFull ? sample(0, 0) / 255 : (sample(0, 0) - 16) / 219;
    const double cb = (sample(1, 1) - 128) / (isFull ? 255 : 224);
    const double cr = (sample(2, 1) - 128) / (isFull ? 255 : 224);
    const double red = luma + 2 * (1 - kr) * cr;
    const double blue = luma + 2 * (1 - kb) * cb;
    const double green = (luma - kr * red - kb * blue) / (1 - kr - kb);
    const auto byte = [](double part) { return static_cast<int>(std::lround(std::clamp(part, 0.0, 1.0) * 255)); };
    return {byte(red), byte(green), byte(blue)};
}

PackedFrame::PackedFrame(int width, int height)
    : block_(static_cast<size_t>(width * height * 3 / 2) + kGuardBytes, kGuardByte) {
    frame_.width = width;
    frame_.height = height;
    frame_.layOutIn(block_.data());
}

bool PackedFrame::isTailUntouched() const {
    return std::all_of(block_.end() - kGuardBytes, block_.end(), [](uint8_t byte) { return byte == kGuardByte; });
}

int largestDifference(const std::vector<uint8_t>& left, const std::vector<uint8_t>& right) {
    if (left.size() != right.size()) {
        return 256;
    }
    int largest = 0;
    for (size_t i = 0; i < left.size(); ++i) {
        largest = std::max(largest, std::abs(left[i] - right[i]));
    }
    return largest;
}

}  // namespace kelp::test
