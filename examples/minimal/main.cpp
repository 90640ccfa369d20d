// Plays a file or URL in a window: minimal FILE
#include <SDL.h>
#include <kelp_player/tarn_player.h>

#include <atomic>
#include <cstdio>

// What the player tells. It comes on a thread of the player's.
struct Events final : kelp::TarnPlayerObserver {
    kelp::TarnPlayer* player = nullptr;
    std::atomic<bool> completed{false};
    std::atomic<bool> failed{false};

    void onCompleted() override { completed = true; }
    void onFailed(int) override { failed = true; }  // the log's last line says why
    void onVideoSizeUpdated(int, int, int) override {}
    void onPrepared(bool, bool) override { failed = !player->start(); }
    void onStarted() override {}
    void onFirstVideoFrame(int) override {}
    void onFirstAudioFrame(int) override {}
    void onDurationUpdated(int) override {}
};

int main(int argc, char** argv) {
    if (argc != 2 || SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) != 0) {
        std::fprintf(stderr, "%s\n", argc != 2 ? "usage: minimal FILE" : SDL_GetError());
        return 2;
    }
    // The player draws from a thread of its own; SDL keeps the window as it is if it was made for OpenGL.
    SDL_Window* window = SDL_CreateWindow("minimal", 100, 100, 1280, 720, SDL_WINDOW_OPENGL);

    Events events;
    kelp::TarnPlayer* player = events.player = kelp::TarnPlayer::create();
    player->setOption("preset", "recommended");  // what a new program should ask for, see docs/options.md
    player->setOption("log_level", "error");
    player->addWindow(window, kelp::WINDOW_TYPE_SDL, 1280, 720);
    player->setAVSyncMode(kelp::SYNC_MASTER_AUDIO);
    player->setDataSource(argv[1], 0, &events);
    player->prepareAsync();  // goes on with onPrepared, or onFailed

    bool quit = false;
    while (!quit && !events.completed && !events.failed) {
        SDL_Delay(20);
        for (SDL_Event event; SDL_PollEvent(&event) != 0;) {
            quit = quit || event.type == SDL_QUIT;
        }
    }

    player->stop();
    kelp::TarnPlayer::destroy(player);
    SDL_DestroyWindow(window);
    SDL_Quit();
    return events.failed ? 1 : 0;
}
