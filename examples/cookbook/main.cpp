// Plays a file in two windows, with the log in a pane: cookbook FILE
//
// The code of the documents, put together to a program. `S` takes the second window away and brings it back, left and
// right seek, up and down change the speed, `A` and `V` go to the next sound or video.
#include <SDL.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "event_queue.h"
#include "kelp_player/tarn_player.h"
#include "log_pane.h"
#include "packet_meter.h"
#include "recorder.h"
#include "stall_sign.h"
#include "track_menu.h"

namespace {

constexpr int kSeekStepMs = 5000;

SDL_Window* makeWindow(const char* title, int x, int width, int height) {
    // [window]
    SDL_Window* window = SDL_CreateWindow(title, x, 50, width, height, SDL_WINDOW_OPENGL | SDL_WINDOW_RESIZABLE);
    if (window == nullptr) {
        // A video driver without OpenGL, such as SDL's "dummy".
        window = SDL_CreateWindow(title, x, 50, width, height, SDL_WINDOW_RESIZABLE);
    }
    // [/window]
    return window;
}

class App final : public Host {
public:
    explicit App(const char* file) : file_(file), events_(queue_, *this) {}

    int run();

    void showSize(int width, int height, int rotate) override {
        std::printf("pictures of %dx%d, turned by %d degrees\n", width, height, rotate);
    }
    void showReady(bool hasVideo, bool hasAudio) override {
        std::printf("video: %s, sound: %s\n", hasVideo ? "yes" : "no", hasAudio ? "yes" : "no");
        for (const auto kind : {kelp::TRACK_KIND_VIDEO, kelp::TRACK_KIND_AUDIO}) {
            for (const TrackEntry& entry : trackMenu(*player_, kind)) {
                std::printf("  %s %s\n", entry.isChecked ? "*" : " ", entry.label.c_str());
            }
        }
    }
    void showFailure(int errorType) override {
        std::printf("failure %d: %s\n", errorType, log_.lastError().c_str());
        exitCode_ = 1;
        quit_ = true;
    }
    void showEnd() override { quit_ = true; }

private:
    void handle(const SDL_Event& event);
    void handleKey(SDL_Keycode key);
    void changeSpeed(float factor);

    const char* file_;
    LogPane log_;
    PacketMeter meter_;
    StallSign sign_;
    EventQueue queue_;
    QueuedEvents events_;
    kelp::TarnPlayer* player_ = nullptr;
    SDL_Window* large_ = nullptr;
    SDL_Window* small_ = nullptr;
    std::string shownSign_;
    bool smallShown_ = true;
    float speed_ = 1.0F;
    bool quit_ = false;
    int exitCode_ = 0;
};

int App::run() {
    large_ = makeWindow("large", 50, 960, 540);
    small_ = makeWindow("small", 1050, 320, 180);
    if (large_ == nullptr || small_ == nullptr) {
        std::fprintf(stderr, "cookbook: no window: %s\n", SDL_GetError());
        return 1;
    }
    // [two windows]
    player_ = kelp::TarnPlayer::create();
    player_->setOption("preset", "recommended");
    player_->addWindow(large_, kelp::WINDOW_TYPE_SDL, 960, 540);
    player_->addWindow(small_, kelp::WINDOW_TYPE_SDL, 320, 180);
    // [/two windows]
    // [master]
    player_->setAVSyncMode(kelp::SYNC_MASTER_AUDIO);  // the picture follows the sound, and with it its speed
    // [/master]
    // [recovery]
    player_->setOption("timeout", "5000000");         // microseconds until a silent server counts as failed
    player_->setOption("retry_when_failed", "2000");  // milliseconds from a failure to the next try
    // [/recovery]
    if (std::string(file_).find("://") == std::string::npos) {
        player_->setOption("retry_when_failed", "0");  // a file that can't be opened won't come by itself
    }
    player_->setPacketSink(&meter_);
    player_->setStallObserver(&sign_);
    player_->setDataSource(file_, 0, &events_);
    player_->prepareAsync();
    player_->start();

    while (!quit_) {
        SDL_Delay(20);
        for (SDL_Event event; SDL_PollEvent(&event) != 0;) {
            handle(event);
        }
        queue_.runAll();
        if (const std::string text = sign_.text(); text != shownSign_) {
            shownSign_ = text;
            SDL_SetWindowTitle(large_, text.empty() ? "large" : text.c_str());
        }
        for (const auto& line : log_.takeLines()) {
            std::printf("  log: %s\n", line.c_str());
        }
    }
    player_->stop();
    kelp::TarnPlayer::destroy(player_);  // no event comes after this
    std::printf("key frames are %.1f s apart at most\n", meter_.longest());
    SDL_DestroyWindow(small_);
    SDL_DestroyWindow(large_);
    return exitCode_;
}

void App::handle(const SDL_Event& event) {
    if (event.type == SDL_QUIT) {
        quit_ = true;
    } else if (event.type == SDL_KEYDOWN) {
        handleKey(event.key.keysym.sym);
    }
    // [resize]
    if (event.type == SDL_WINDOWEVENT && event.window.event == SDL_WINDOWEVENT_SIZE_CHANGED) {
        SDL_Window* window = SDL_GetWindowFromID(event.window.windowID);
        if (window == large_ || smallShown_) {
            player_->addWindow(window, kelp::WINDOW_TYPE_SDL, event.window.data1, event.window.data2);
        }
    }
    // [/resize]
}

void App::handleKey(SDL_Keycode key) {
    if (key == SDLK_LEFT || key == SDLK_RIGHT) {
        player_->seek(player_->getCurrentTime() + (key == SDLK_LEFT ? -kSeekStepMs : kSeekStepMs));
    } else if (key == SDLK_UP || key == SDLK_DOWN) {
        changeSpeed(key == SDLK_UP ? 1.25F : 0.8F);
    } else if (key == SDLK_a || key == SDLK_v) {
        selectNext(*player_, key == SDLK_a ? kelp::TRACK_KIND_AUDIO : kelp::TRACK_KIND_VIDEO);
    } else if (key == SDLK_s) {
        smallShown_ = !smallShown_;
        if (smallShown_) {
            player_->addWindow(small_, kelp::WINDOW_TYPE_SDL, 320, 180);
        } else {
            // [remove]
            player_->removeWindow(small_);  // the player lets go of it within about 50 ms: it isn't destroyed here
            // [/remove]
        }
    }
}

void App::changeSpeed(float factor) {
    speed_ = std::clamp(speed_ * factor, 0.25F, 4.0F);
    player_->setSpeed(speed_);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) != 0) {
        std::fprintf(stderr, "%s\n", argc != 2 ? "usage: cookbook FILE" : SDL_GetError());
        return 2;
    }
    return App(argv[1]).run();
}
