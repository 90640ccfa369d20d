#include "subtitle/text_drawer.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <string>
#include <utility>

#include "kelp_player/log.h"

namespace kelp {

namespace {

constexpr char kTag[] = "TextDrawer";
constexpr char kFamily[] = "sans-serif";  // where the script names none, or one that isn't there
constexpr int kMaxGlyphs = 2000;          // kept from one picture to the next
constexpr int kMaxBitmapsMiB = 32;        // likewise
constexpr int kQuiet = 1;                 // what libass says up to there is an error of its own
constexpr int64_t kLongestMs = 24 * 3600 * 1000;
constexpr size_t kMaxLines = 500;  // at once: libass compares each with each, and can't be stopped

void tell(int level, const char* format, va_list arguments, void*) {
    if (level <= kQuiet) {
        char text[500];
        std::vsnprintf(text, sizeof(text), format, arguments);
        Log::Debug(kTag, "%s\n", text);
    }
}

// The rectangle that holds all that is drawn; libass keeps within the screen.
SubtitleOverlay::Part boundsOf(const ASS_Image* images) {
    int left = std::numeric_limits<int>::max();
    int top = left;
    int right = 0;
    int bottom = 0;
    for (const ASS_Image* image = images; image; image = image->next) {
        left = std::min(left, image->dst_x);
        top = std::min(top, image->dst_y);
        right = std::max(right, image->dst_x + image->w);
        bottom = std::max(bottom, image->dst_y + image->h);
    }
    SubtitleOverlay::Part bounds;
    bounds.x = left;
    bounds.y = top;
    bounds.pixelWidth = bounds.width = right - left;
    bounds.pixelHeight = bounds.height = bottom - top;
    return bounds;
}

int divide255(int value) {
    return (value + 127) / 255;
}

// Lays one colour over what is there, as much as each pixel of the image says. The colours below are multiplied by how
// much they cover until all are there.
void blend(const ASS_Image& image, SubtitleOverlay::Part& part) {
    const int red = static_cast<int>(image.color >> 24);
    const int green = static_cast<int>(image.color >> 16 & 0xFF);
    const int blue = static_cast<int>(image.color >> 8 & 0xFF);
    const int opacity = 255 - static_cast<int>(image.color & 0xFF);
    for (int y = 0; y < image.h; ++y) {
        const uint8_t* const from = image.bitmap + ptrdiff_t{y} * image.stride;
        const ptrdiff_t first = ptrdiff_t{image.dst_y - part.y + y} * part.width + (image.dst_x - part.x);
        uint8_t* to = part.pixels.data() + first * 4;
        for (int x = 0; x < image.w; ++x, to += 4) {
            const int covers = divide255(from[x] * opacity);
            if (covers == 0) {
                continue;
            }
            const int rest = 255 - covers;
            to[0] = static_cast<uint8_t>(divide255(red * covers + to[0] * rest));
            to[1] = static_cast<uint8_t>(divide255(green * covers + to[1] * rest));
            to[2] = static_cast<uint8_t>(divide255(blue * covers + to[2] * rest));
            to[3] = static_cast<uint8_t>(divide255(255 * covers + to[3] * rest));
        }
    }
}

void divideByCover(SubtitleOverlay::Part& part) {
    for (size_t i = 0; i < part.pixels.size(); i += 4) {
        const int covers = part.pixels[i + 3];
        for (size_t color = i; covers != 0 && covers != 255 && color < i + 3; ++color) {
            part.pixels[color] = static_cast<uint8_t>(std::min((part.pixels[color] * 255 + covers / 2) / covers, 255));
        }
    }
}

DrawnSubtitles compose(const ASS_Image* images) {
    SubtitleOverlay::Part part = boundsOf(images);
    if (part.width == 0 || part.height == 0) {
        return nullptr;
    }
    part.pixels.resize(static_cast<size_t>(part.width) * static_cast<size_t>(part.height) * 4);
    for (const ASS_Image* image = images; image; image = image->next) {
        blend(*image, part);
    }
    divideByCover(part);
    auto overlay = std::make_shared<SubtitleOverlay>();
    overlay->parts.push_back(std::move(part));
    return overlay;
}

}  // namespace

TextDrawer::TextDrawer(std::shared_ptr<const SubtitleTrack> track)
    : source_(std::move(track)), ass_(AssLibrary::get()), isOpen_(ass_ && open()) {
}

TextDrawer::~TextDrawer() {
    if (track_) {
        ass_->freeTrack(track_);
    }
    if (renderer_) {
        ass_->doneRenderer(renderer_);
    }
    if (library_) {
        ass_->doneLibrary(library_);
    }
}

bool TextDrawer::open() {
    library_ = ass_->initLibrary();
    if (!library_) {
        return false;
    }
    ass_->setMessages(library_, tell, nullptr);
    ass_->setExtractFonts(library_, 1);
    if (const auto& fonts = source_->head().fonts) {
        for (const SubtitleFont& font : *fonts) {
            ass_->addFont(library_, font.name.c_str(), font.data.data(), static_cast<int>(font.data.size()));
        }
    }
    renderer_ = ass_->initRenderer(library_);
    track_ = renderer_ ? ass_->newTrack(library_) : nullptr;
    if (!track_) {
        return false;
    }
    ass_->setFonts(renderer_, nullptr, kFamily, ASS_FONTPROVIDER_AUTODETECT, nullptr, 1);
    ass_->setCacheLimits(renderer_, kMaxGlyphs, kMaxBitmapsMiB);
    ass_->setOrderCheck(track_, 0);  // none comes twice
    std::string script = source_->head().script;
    ass_->processHead(track_, script.data(), static_cast<int>(script.size()));
    return true;
}

// libass remembers where it has put a line, so what it has stays there, unless something else has gone or changed.
void TextDrawer::takeEvents() {
    const unsigned int version = source_->version();
    if (std::exchange(hasEvents_, true) && version == version_) {
        return;
    }
    version_ = version;
    const auto events = source_->all();
    const std::set<SubtitleTrack::Event> known(events.begin(), events.end());
    if (!std::ranges::includes(known, taken_)) {
        ass_->flushEvents(track_);
        taken_.clear();
    }
    for (const auto& event : events) {
        if (!taken_.insert(event).second) {
            continue;
        }
        const int order = event->order >= 0 ? event->order : static_cast<int>(taken_.size());
        std::string line = std::to_string(order) + "," + event->ass;
        const int64_t lastsMs = std::min(event->endMs, event->startMs + kLongestMs) - event->startMs;
        ass_->processEvent(track_, line.data(), static_cast<int>(line.size()), event->startMs, lastsMs);
    }
}

void TextDrawer::setScreen(const SubtitleScreenSize& screen) {
    if (screen == screen_) {
        return;
    }
    screen_ = screen;
    ass_->setFrameSize(renderer_, screen.width, screen.height);
    ass_->setStorageSize(renderer_, screen.pictureWidth, screen.pictureHeight);  // 0 for an unknown one, as there
    // What was placed upon a picture is stretched with it, mere text never.
    ass_->setPixelAspect(renderer_, source_->head().isStyled ? 0 : 1);
}

DrawnSubtitles TextDrawer::draw(int64_t timeMs, const SubtitleScreenSize& screen) {
    if (!isOpen_) {
        return nullptr;
    }
    if (const size_t lines = source_->at(timeMs).events.size(); lines > kMaxLines) {
        if (!std::exchange(isTold_, true)) {
            Log::Warn(kTag, "%s, %d lines at once are too many and aren't drawn\n", "draw", static_cast<int>(lines));
        }
        return nullptr;
    }
    takeEvents();
    setScreen(screen);
    int change = 0;
    const ASS_Image* const images = ass_->renderFrame(renderer_, track_, timeMs, &change);
    if (change != 0 || (images != nullptr) != (drawn_ != nullptr)) {
        drawn_ = images ? compose(images) : nullptr;
    }
    return drawn_;
}

}  // namespace kelp
