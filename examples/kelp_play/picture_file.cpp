#include "picture_file.h"

#include <png.h>

#include <cerrno>
#include <cstring>
#include <memory>

extern "C" {
#include <libswscale/swscale.h>
}

namespace {

struct SwsFree {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

// The picture in RGB, 3 bytes a pixel, in packed rows. Even sizes only, since chroma rows are half as wide.
std::vector<uint8_t> toRgb(const Picture& picture, int width, int height) {
    std::unique_ptr<SwsContext, SwsFree> context(sws_getContext(
        width, height, AV_PIX_FMT_YUV420P, width, height, AV_PIX_FMT_RGB24, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!context) {
        return {};
    }
    // The scaler writes a little past a row where the width is not a multiple of its step.
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3 + 64);
    const uint8_t* source[] = {picture.planes[0].data(), picture.planes[1].data(), picture.planes[2].data()};
    const int sourceLines[] = {picture.width, picture.width / 2, picture.width / 2};
    uint8_t* target[] = {rgb.data()};
    const int targetLines[] = {width * 3};
    sws_scale(context.get(), source, sourceLines, 0, height, target, targetLines);
    return rgb;
}

std::vector<uint8_t> turnClockwise(const std::vector<uint8_t>& rgb, int& width, int& height) {
    std::vector<uint8_t> turned(static_cast<size_t>(width) * height * 3);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const size_t from = (static_cast<size_t>(y) * width + x) * 3;
            const size_t to = (static_cast<size_t>(x) * height + (height - 1 - y)) * 3;
            std::memcpy(&turned[to], &rgb[from], 3);
        }
    }
    std::swap(width, height);
    return turned;
}

}  // namespace

bool writePng(const Picture& picture, const std::string& path, std::string& error) {
    int width = picture.width & ~1;
    int height = picture.height & ~1;
    if (width < 2 || height < 2) {
        error = "the picture is too small";
        return false;
    }
    std::vector<uint8_t> rgb = toRgb(picture, width, height);
    if (rgb.empty()) {
        error = "the picture can't be converted";
        return false;
    }
    for (int turn = 0; turn < picture.rotate / 90; ++turn) {
        rgb = turnClockwise(rgb, width, height);
    }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), width * 3, nullptr) == 0) {
        error = path + ": " + (image.message[0] != '\0' ? image.message : std::strerror(errno));
        return false;
    }
    return true;
}
