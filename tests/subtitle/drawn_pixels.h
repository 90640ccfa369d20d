#pragma once

#include <ass/ass.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

#include "subtitle/subtitle_overlay.h"

namespace kelp::test {

// As it is seen.
struct Pixel {
    double red = 0;
    double green = 0;
    double blue = 0;
};

constexpr double kBackground = 100;  // of each colour

// What is drawn, over a gray screen.
inline std::vector<Pixel> seen(const DrawnSubtitles& drawn, int width, int height) {
    std::vector<Pixel> screen(static_cast<size_t>(width * height), {kBackground, kBackground, kBackground});
    for (const auto& part : drawn ? drawn->parts : std::vector<SubtitleOverlay::Part>()) {
        EXPECT_EQ(part.pixels.size(), static_cast<size_t>(part.pixelWidth * part.pixelHeight * 4));
        for (int y = 0; y < part.pixelHeight; ++y) {
            for (int x = 0; x < part.pixelWidth; ++x) {
                const uint8_t* from = &part.pixels[static_cast<size_t>((y * part.pixelWidth + x) * 4)];
                Pixel& to = screen[static_cast<size_t>((part.y + y) * width + part.x + x)];
                const double covers = from[3] / 255.0;
                to.red += (from[0] - to.red) * covers;
                to.green += (from[1] - to.green) * covers;
                to.blue += (from[2] - to.blue) * covers;
            }
        }
    }
    return screen;
}

// libass, called by itself with a whole script, for one screen.
class Libass {
public:
    Libass(std::string script, int width, int height) : width_(width), height_(height) {
        ass_set_message_cb(
            library_, [](int, const char*, va_list, void*) {}, nullptr);
        ass_set_fonts(renderer_, nullptr, "sans-serif", ASS_FONTPROVIDER_AUTODETECT, nullptr, 1);
        ass_set_frame_size(renderer_, width, height);
        ass_set_storage_size(renderer_, 640, 360);
        track_ = ass_read_memory(library_, script.data(), script.size(), nullptr);
    }
    ~Libass() {
        ass_free_track(track_);
        ass_renderer_done(renderer_);
        ass_library_done(library_);
    }

    std::vector<Pixel> draw(int64_t timeMs);

private:
    const int width_;
    const int height_;
    ASS_Library* const library_ = ass_library_init();
    ASS_Renderer* const renderer_ = ass_renderer_init(library_);
    ASS_Track* track_ = nullptr;
};

inline std::vector<Pixel> Libass::draw(int64_t timeMs) {
    std::vector<Pixel> screen(static_cast<size_t>(width_ * height_), {kBackground, kBackground, kBackground});
    for (const ASS_Image* image = ass_render_frame(renderer_, track_, timeMs, nullptr); image; image = image->next) {
        for (int y = 0; y < image->h; ++y) {
            for (int x = 0; x < image->w; ++x) {
                const int atX = image->dst_x + x;
                const int atY = image->dst_y + y;
                if (atX < 0 || atY < 0 || atX >= width_ || atY >= height_) {
                    continue;
                }
                Pixel& to = screen[static_cast<size_t>(atY * width_ + atX)];
                const double covers =
                    image->bitmap[y * image->stride + x] / 255.0 * (255 - (image->color & 0xFF)) / 255;
                to.red += ((image->color >> 24) - to.red) * covers;
                to.green += ((image->color >> 16 & 0xFF) - to.green) * covers;
                to.blue += ((image->color >> 8 & 0xFF) - to.blue) * covers;
            }
        }
    }
    return screen;
}

inline double farthest(const std::vector<Pixel>& one, const std::vector<Pixel>& other) {
    double most = one.size() == other.size() ? 0 : 1000;
    for (size_t i = 0; i < one.size() && i < other.size(); ++i) {
        most = std::max({most, std::abs(one[i].red - other[i].red), std::abs(one[i].green - other[i].green),
                         std::abs(one[i].blue - other[i].blue)});
    }
    return most;
}

// Of all colours of all pixels.
inline double meanDistance(const std::vector<Pixel>& one, const std::vector<Pixel>& other) {
    double sum = 0;
    for (size_t i = 0; i < one.size() && i < other.size(); ++i) {
        sum += std::abs(one[i].red - other[i].red) + std::abs(one[i].green - other[i].green) +
               std::abs(one[i].blue - other[i].blue);
    }
    return one.size() == other.size() ? sum / static_cast<double>(one.size() * 3) : 1000;
}

}  // namespace kelp::test
