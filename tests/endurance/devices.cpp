// Plays where there is no sound device, where it goes and comes, and where many want it, with `no_sound_device` as
// `silence`, and looks whether every picture is shown, in time.
//
//   devices [--times N] [--players N]
//
// A film of 40 s with sound is played without a device, and with one that goes and comes N times (10) meanwhile, with
// each of three masters; then N players (100) play one of three seconds, where there is one device and where there is
// none. The program prints how many pictures were shown, how far the last one lies from the pace of the first, and when
// the end was told, and fails if a film that plays alone loses a picture, is more than 0.1 % off or ends late, or if
// one of many doesn't come to its end: a machine that has too much to do leaves pictures out.

#include <SDL.h>
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e/media.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "kelp_player/log.h"

namespace {

std::atomic<bool> g_isThere{true};
std::atomic<int> g_open{0};        // devices
std::atomic<int> g_most{1 << 20};  // that can be open at once
std::atomic<SDL_AudioCallback> g_callback{nullptr};

// A device that is gone asks for no more samples.
void callWhileThere(void* opaque, Uint8* stream, int length) {
    if (g_isThere) {
        g_callback.load()(opaque, stream, length);
    } else {
        SDL_memset(stream, 0, static_cast<size_t>(length));
    }
}

}  // namespace

extern "C" {

// In place of SDL's, for the player's library too.
SDL_AudioDeviceID SDL_OpenAudioDevice(const char* device, int capture, const SDL_AudioSpec* wanted,
                                      SDL_AudioSpec* obtained, int changes) {
    static const auto open = reinterpret_cast<decltype(&SDL_OpenAudioDevice)>(dlsym(RTLD_NEXT, "SDL_OpenAudioDevice"));
    if (!g_isThere || g_open >= g_most) {
        SDL_SetError("no device today");
        return 0;
    }
    SDL_AudioSpec spec = *wanted;
    g_callback = spec.callback;
    spec.callback = callWhileThere;
    const SDL_AudioDeviceID opened = open(device, capture, &spec, obtained, changes);
    g_open += opened != 0;
    return opened;
}

void SDL_CloseAudioDevice(SDL_AudioDeviceID device) {
    static const auto close =
        reinterpret_cast<decltype(&SDL_CloseAudioDevice)>(dlsym(RTLD_NEXT, "SDL_CloseAudioDevice"));
    g_open -= device != 0;
    close(device);
}

}  // extern "C"

namespace {

using namespace kelp;
using namespace kelp::test;

constexpr int kWaitMs = 120000;
constexpr int kGoneMs = 1000;
constexpr int kThereMs = 2900;  // it is looked for every two seconds
constexpr double kMostOffPace = 0.001;
constexpr int kMostLateMs = 250;  // the end behind the last picture's own time

struct Playing {
    explicit Playing(const std::string& film, SyncMasterMode master) {
        KelpPlayer& player = playback.player();
        player.setOption("preset", "recommended");
        player.enableHwDecoder(false, HW_DECODE_NONE);
        player.addWindow(WINDOW_TYPE_EXTERN, static_cast<ExternFrameSink*>(&sink), 320, 180);
        player.setAVSyncMode(master);
        isOpen = playback.open(film, kWaitMs);
    }

    RecordingSink sink{RecordingSink::Keep::Nothing};
    Playback playback;
    bool isOpen = false;
};

struct Outcome {
    int shown = 0;
    double offPace = 0;  // of the last picture against the first, as a part of the film's time
    double lateMs = 0;   // of the end
};

Outcome outcomeOf(Playing& playing, const MediaFile& film) {
    const double pictureMs = static_cast<double>(film.durationMs) / film.frames;
    const auto lastMs = static_cast<int64_t>(film.durationMs - pictureMs);
    if (!playing.playback.waitFor(Happened::Completed, kWaitMs) || !playing.sink.waitForPicture(lastMs, kWaitMs) ||
        playing.playback.count(Happened::Failed) > 0) {
        return {.offPace = 1};
    }
    const auto frames = playing.sink.frames();
    const ShownFrame& first = frames.front();
    const ShownFrame& last = frames.back();
    const auto filmUs = static_cast<double>(last.pts - first.pts) * 1000;
    const auto tookUs = static_cast<double>(last.atUs - first.atUs);
    const auto endUs = static_cast<double>(playing.playback.first(Happened::Completed).atUs - last.atUs);
    return {static_cast<int>(frames.size()), tookUs / filmUs - 1, endUs / 1000 - pictureMs};
}

bool playOne(SyncMasterMode master, const char* name, int times) {
    const MediaFile& film = mediaFile("clicks.mp4");
    g_isThere = times > 0;
    Playing playing(mediaPath(film.name), master);
    if (!playing.isOpen || !playing.playback.player().play()) {
        return false;
    }
    for (int i = 0; i < times; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kThereMs));
        g_isThere = false;
        std::this_thread::sleep_for(std::chrono::milliseconds(kGoneMs));
        g_isThere = true;
    }
    const Outcome got = outcomeOf(playing, film);
    std::printf("devices: %s as master, gone and back %d times: %d of %d pictures, pace %+.3f %%, end %+.0f ms\n", name,
                times, got.shown, film.frames, got.offPace * 100, got.lateMs);
    return got.shown == film.frames && std::abs(got.offPace) <= kMostOffPace && got.lateMs <= kMostLateMs;
}

bool playMany(int players, int devices) {
    const MediaFile& film = mediaFile("small.mp4");
    g_isThere = true;
    g_most = devices;
    std::vector<std::unique_ptr<Playing>> all;
    bool isOpen = true;
    for (int i = 0; i < players; ++i) {
        all.push_back(std::make_unique<Playing>(mediaPath(film.name), SYNC_MASTER_AUDIO));
        isOpen = isOpen && all.back()->isOpen;
    }
    for (const auto& one : all) {
        isOpen = isOpen && one->playback.player().play();
    }
    int shown = 0;
    int completed = 0;
    for (const auto& one : all) {
        shown += outcomeOf(*one, film).shown;
        completed += one->playback.count(Happened::Completed);
    }
    std::printf("devices: %d players and %d devices: %d at their end, %d of %d pictures\n", players, devices, completed,
                shown, players * film.frames);
    return isOpen && completed == players;
}

}  // namespace

int main(int argc, char** argv) {
    int times = 10;
    int players = 100;
    for (int i = 1; i + 1 < argc; i += 2) {
        (std::string(argv[i]) == "--players" ? players : times) = std::atoi(argv[i + 1]);
    }
    Log::SetLogCallback([](const char*) {});
    setenv("SDL_AUDIODRIVER", "dummy", /*overwrite=*/1);
    bool isRight = true;
    for (const int losses : {0, times}) {
        isRight = playOne(SYNC_MASTER_AUDIO, "sound", losses) && isRight;
        isRight = playOne(SYNC_MASTER_CLOCK, "clock", losses) && isRight;
        isRight = playOne(SYNC_MASTER_VIDEO, "picture", losses) && isRight;
    }
    isRight = playMany(players, 1) && isRight;
    isRight = playMany(players, 0) && isRight;
    std::printf("devices: %s\n", isRight ? "all as it should be" : "something is wrong");
    return isRight ? 0 : 1;
}
