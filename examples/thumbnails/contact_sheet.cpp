#include "contact_sheet.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

namespace {

constexpr int kTileWidthMax = 320;

uint8_t toByte(int value256) {
    return static_cast<uint8_t>(std::clamp((value256 + 128) / 256, 0, 255));
}

// One pixel of a picture in RGB, by the coefficients of BT.601 in limited range.
void toRgb(const PictureView& picture, int x, int y, uint8_t* rgb) {
    const int chromaX = std::min(x / 2, std::max(picture.width / 2 - 1, 0));
    const int chromaY = std::min(y / 2, std::max(picture.height / 2 - 1, 0));
    const auto at = [&](int plane, int column, int row) {
        return static_cast<int>(picture.planes[plane][static_cast<ptrdiff_t>(row) * picture.linesize[plane] + column]);
    };
    const int luma = 298 * (at(0, x, y) - 16);
    const int u = at(1, chromaX, chromaY) - 128;
    const int v = at(2, chromaX, chromaY) - 128;
    rgb[0] = toByte(luma + 409 * v);
    rgb[1] = toByte(luma - 100 * u - 208 * v);
    rgb[2] = toByte(luma + 516 * u);
}

}  // namespace

ContactSheet::ContactSheet(int count, int width, int height, int rotate)
    : columns_(static_cast<int>(std::ceil(std::sqrt(count)))) {
    if (rotate % 180 != 0) {
        std::swap(width, height);
    }
    tileWidth_ = std::min(width, kTileWidthMax);
    tileHeight_ = std::max(1, static_cast<int>(static_cast<int64_t>(height) * tileWidth_ / width));
    sheetWidth_ = tileWidth_ * columns_;
    sheetHeight_ = tileHeight_ * ((count + columns_ - 1) / columns_);
    rgb_.resize(static_cast<size_t>(sheetWidth_) * sheetHeight_ * 3);
}

void ContactSheet::draw(int index, const PictureView& picture) {
    const int left = index % columns_ * tileWidth_;
    const int top = index / columns_ * tileHeight_;
    for (int y = 0; y < tileHeight_; ++y) {
        for (int x = 0; x < tileWidth_; ++x) {
            // Where the tile's pixel lies in the picture as it is stored, in units of 1 / (2 * tile size).
            const int64_t across = 2 * x + 1;
            const int64_t down = 2 * y + 1;
            const int64_t acrossEnd = 2 * static_cast<int64_t>(tileWidth_);
            const int64_t downEnd = 2 * static_cast<int64_t>(tileHeight_);
            const auto column = [&](int64_t part, int64_t whole) {
                return static_cast<int>(part * picture.width / whole);
            };
            const auto row = [&](int64_t part, int64_t whole) {
                return static_cast<int>(part * picture.height / whole);
            };
            int fromX = column(across, acrossEnd);
            int fromY = row(down, downEnd);
            if (picture.rotate == 90) {
                fromX = column(down, downEnd);
                fromY = row(acrossEnd - across, acrossEnd);
            } else if (picture.rotate == 180) {
                fromX = column(acrossEnd - across, acrossEnd);
                fromY = row(downEnd - down, downEnd);
            } else if (picture.rotate == 270) {
                fromX = column(downEnd - down, downEnd);
                fromY = row(across, acrossEnd);
            }
            toRgb(picture, fromX, fromY, &rgb_[(static_cast<size_t>(top + y) * sheetWidth_ + left + x) * 3]);
        }
    }
}

bool ContactSheet::write(const std::string& path, std::string& error) const {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(sheetWidth_);
    image.height = static_cast<png_uint_32>(sheetHeight_);
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, path.c_str(), 0, rgb_.data(), sheetWidth_ * 3, nullptr) == 0) {
        error = image.message;
        return false;
    }
    return true;
}
