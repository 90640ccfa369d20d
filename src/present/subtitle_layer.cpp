#include "present/subtitle_layer.h"

#include <limits>
#include <utility>

namespace kelp {

namespace {

constexpr int kLookAgainMs = 10;

}  // namespace

void SubtitleLayer::setSource(const std::shared_ptr<SubtitleScreen>& source) {
    source_ = source;
    view_ = nullptr;
}

SubtitleScreen::Answer SubtitleLayer::ask(const Picture& picture) {
    if (!source_ || !source_->isOn()) {
        return {};
    }
    if (!view_) {
        view_ = source_->addView();
    }
    return source_->at(*view_, picture.timeMs, {picture.area.w, picture.area.h, picture.width, picture.height});
}

int SubtitleLayer::keepsForMs(const Picture& picture) {
    const auto answer = ask(picture);
    if (answer.subtitles != subtitles_) {
        return 0;
    }
    return answer.isFinal ? std::numeric_limits<int>::max() : kLookAgainMs;
}

void SubtitleLayer::draw(SDL_Renderer* renderer, const Picture& picture) {
    const auto answer = ask(picture);
    if (answer.subtitles != std::exchange(subtitles_, answer.subtitles)) {
        textures_.clear();
        if (subtitles_) {
            for (const auto& part : subtitles_->parts) {
                textures_.push_back(makeTexture(renderer, part));
            }
        }
    }
    for (size_t i = 0; i < textures_.size(); ++i) {
        const auto& part = subtitles_->parts[i];
        // Those that were drawn for another size stand in until the right ones are there.
        const auto scaled = [](int64_t value, int to, int from) { return static_cast<int>(value * to / from); };
        const SDL_Rect place{picture.area.x + scaled(part.x, picture.area.w, answer.size.width),
                             picture.area.y + scaled(part.y, picture.area.h, answer.size.height),
                             scaled(part.width, picture.area.w, answer.size.width),
                             scaled(part.height, picture.area.h, answer.size.height)};
        if (textures_[i]) {
            SDL_RenderCopy(renderer, textures_[i].get(), nullptr, &place);
        }
    }
}

SubtitleLayer::Texture SubtitleLayer::makeTexture(SDL_Renderer* renderer, const SubtitleOverlay::Part& part) {
    Texture texture(SDL_CreateTexture(renderer, SDL_PIXELFORMAT_RGBA32, SDL_TEXTUREACCESS_STATIC, part.pixelWidth,
                                      part.pixelHeight));
    const bool isMade = texture &&
                        SDL_UpdateTexture(texture.get(), nullptr, part.pixels.data(), part.pixelWidth * 4) == 0 &&
                        SDL_SetTextureBlendMode(texture.get(), SDL_BLENDMODE_BLEND) == 0 &&
                        SDL_SetTextureScaleMode(texture.get(), SDL_ScaleModeLinear) == 0;
    return isMade ? std::move(texture) : nullptr;
}

void SubtitleLayer::free() {
    textures_.clear();
    subtitles_ = nullptr;
    view_ = nullptr;
}

}  // namespace kelp
