#include "subtitle/subtitle_drawer.h"

#include <utility>

namespace kelp {

namespace {

int scaled(int64_t value, int64_t to, int64_t from) {
    return static_cast<int>((value * to + from / 2) / from);
}

// The screen is the canvas, stretched as the film's picture is.
SubtitleOverlay::Part partOf(const SubtitleBitmap& bitmap, int canvasWidth, int canvasHeight,
                             const SubtitleScreenSize& screen) {
    SubtitleOverlay::Part part;
    part.x = scaled(bitmap.x, screen.width, canvasWidth);
    part.y = scaled(bitmap.y, screen.height, canvasHeight);
    part.width = scaled(int64_t{bitmap.x} + bitmap.width, screen.width, canvasWidth) - part.x;
    part.height = scaled(int64_t{bitmap.y} + bitmap.height, screen.height, canvasHeight) - part.y;
    part.pixelWidth = bitmap.width;
    part.pixelHeight = bitmap.height;
    part.pixels.reserve(bitmap.indices.size() * 4);
    for (const uint8_t index : bitmap.indices) {
        const uint32_t color = index < bitmap.palette.size() ? bitmap.palette[index] : 0;
        for (const int shift : {16, 8, 0, 24}) {
            part.pixels.push_back(static_cast<uint8_t>(color >> shift & 0xFF));
        }
    }
    return part;
}

}  // namespace

DrawnSubtitles SubtitleDrawer::draw(const std::shared_ptr<const SubtitleTrack>& track, int64_t timeMs,
                                    const SubtitleScreenSize& screen) {
    if (track != track_) {
        track_ = track;
        text_.reset();
        drawnEvents_.clear();
        drawn_ = nullptr;
    }
    if (!track || screen.width <= 0 || screen.height <= 0) {
        return nullptr;
    }
    if (!track->head().isText) {
        return drawBitmaps(timeMs, screen);
    }
    if (!text_) {
        text_ = std::make_unique<TextDrawer>(track);
    }
    return text_->draw(timeMs, screen);
}

DrawnSubtitles SubtitleDrawer::drawBitmaps(int64_t timeMs, const SubtitleScreenSize& screen) {
    auto events = track_->at(timeMs).events;
    if (events == drawnEvents_ && screen == drawnScreen_) {
        return drawn_;
    }
    auto overlay = std::make_shared<SubtitleOverlay>();
    for (const auto& event : events) {
        const bool hasCanvas = event->canvasWidth > 0 && event->canvasHeight > 0;
        const int width = hasCanvas ? event->canvasWidth : screen.pictureWidth;
        const int height = hasCanvas ? event->canvasHeight : screen.pictureHeight;
        for (const auto& bitmap : event->bitmaps) {
            if (width > 0 && height > 0) {
                overlay->parts.push_back(partOf(bitmap, width, height, screen));
            }
        }
    }
    drawnEvents_ = std::move(events);
    drawnScreen_ = screen;
    drawn_ = overlay->parts.empty() ? nullptr : std::move(overlay);
    return drawn_;
}

}  // namespace kelp
