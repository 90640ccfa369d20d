// A contact sheet of a file: thumbnails [--option KEY=VALUE]... FILE N OUT.png
//
// N pictures from evenly spaced times, each got by a seek. There is no window and no sound: SDL's dummy drivers take
// their place, so that it also runs where there is no screen. An option is one of the player's, as video_track=1.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>

#include "kelp_player/kelp_player.h"
#include "picture_taker.h"
#include "settings.h"

namespace {

constexpr int kPicturesMax = 400;

// Notes what the player tells on its worker thread.
class Events final : public kelp::KelpPlayerObserver {
public:
    explicit Events(PictureTaker& taker) : taker_(taker) {}

    // Waits until the source is open. False if it can't be opened or has no picture.
    bool waitUntilPrepared() { return prepared_.get_future().get(); }

    void onPrepared(std::shared_ptr<kelp::KelpPlayer>, bool hasVideo, bool) override { prepared_.set_value(hasVideo); }
    void onFailed(std::shared_ptr<kelp::KelpPlayer>, int errorType, int extraData) override {
        if (errorType == kelp::ERROR_TYPE_STREAM && extraData == 0) {
            prepared_.set_value(false);
        }
        taker_.onEnd();
    }
    void onCompleted(std::shared_ptr<kelp::KelpPlayer>) override { taker_.onEnd(); }
    void onVideoSizeUpdated(std::shared_ptr<kelp::KelpPlayer>, int, int, int) override {}
    void onFirstPacket(std::shared_ptr<kelp::KelpPlayer>, int) override {}
    void onFirstVideoFrame(std::shared_ptr<kelp::KelpPlayer>, int) override {}
    void onFirstAudioFrame(std::shared_ptr<kelp::KelpPlayer>, int) override {}
    void onDurationUpdated(std::shared_ptr<kelp::KelpPlayer>, int) override {}

private:
    PictureTaker& taker_;
    std::promise<bool> prepared_;
};

int fail(const std::string& what, const std::string& why) {
    std::fprintf(stderr, "thumbnails: %s: %s\n", what.c_str(), why.c_str());
    return 1;
}

// How many tiles were drawn.
int takePictures(kelp::KelpPlayer& player, PictureTaker& taker, int count) {
    const int64_t duration = player.getDuration();
    int taken = 0;
    for (int i = 0; i < count; ++i) {
        const int timeMs = static_cast<int>(duration * (2 * i + 1) / (2 * count));
        if (!player.seek(timeMs) || !taker.take(i, timeMs)) {
            break;
        }
        ++taken;
    }
    return taken;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    while (argc > 5 && std::string_view(argv[1]) == "--option" && addSetting(argv[2], settings)) {
        argv += 2;
        argc -= 2;
    }
    const int count = argc == 4 ? std::atoi(argv[2]) : 0;
    if (count < 1 || count > kPicturesMax) {
        std::fprintf(stderr, "usage: thumbnails [--option KEY=VALUE]... FILE N OUT.png, with N from 1 to %d\n",
                     kPicturesMax);
        return 2;
    }
    const std::string file = argv[1];
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);

    PictureTaker taker(count);
    Events events(taker);
    const auto player = std::make_shared<kelp::KelpPlayer>();
    if (!player->init(&events)) {
        return fail(file, "the player can't be started");
    }
    player->setOption("log_level", "error");
    // [player]
    player->setOption("preset", "recommended");
    player->addWindow(kelp::WINDOW_TYPE_EXTERN, static_cast<kelp::ExternFrameSink*>(&taker), 0, 0);
    // [/player]
    for (const auto& [key, value] : settings) {
        player->setOption(key.c_str(), value.c_str());
    }
    int taken = 0;
    if (player->loadFileAsync(file.c_str(), 0) && events.waitUntilPrepared() && player->play()) {
        taken = takePictures(*player, taker, count);
    }
    player->stop();
    player->release();

    if (taken == 0) {
        return fail(file, "no picture");
    }
    std::string error;
    if (!taker.sheet()->write(argv[3], error)) {
        return fail(argv[3], error);
    }
    std::printf("%d of %d pictures\n", taken, count);
    return 0;
}
