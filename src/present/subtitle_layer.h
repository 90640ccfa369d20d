#pragma once

#include <SDL.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "subtitle/subtitle_screen.h"

namespace kelp {

// The subtitles of one window, as textures over its picture. The thread that draws.
class SubtitleLayer {
public:
    // What they go with.
    struct Picture {
        int64_t timeMs;
        SDL_Rect area;  // of the window, in pixels
        int width;      // the picture's own, as it stands
        int height;
    };

    // Who draws them, or null.
    void setSource(const std::shared_ptr<SubtitleScreen>& source);

    // Whether there are some, or were when they were drawn last: without any nothing else needs to be asked.
    bool isAny() const { return subtitles_ || (source_ && source_->isOn()); }

    // For how long what was drawn last needn't be drawn again.
    int keepsForMs(const Picture& picture);

    void draw(SDL_Renderer* renderer, const Picture& picture);

    // Before the renderer goes.
    void free();

private:
    struct DestroyTexture {
        void operator()(SDL_Texture* texture) const { SDL_DestroyTexture(texture); }
    };
    using Texture = std::unique_ptr<SDL_Texture, DestroyTexture>;

    SubtitleScreen::Answer ask(const Picture& picture);
    static Texture makeTexture(SDL_Renderer* renderer, const SubtitleOverlay::Part& part);

    std::shared_ptr<SubtitleScreen> source_;
    std::shared_ptr<SubtitleScreen::View> view_;
    DrawnSubtitles subtitles_;       // as drawn last
    std::vector<Texture> textures_;  // of its parts; empty ones where there is no memory
};

}  // namespace kelp
