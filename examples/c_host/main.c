// Plays a file or URL in a window: c_host FILE
#include <SDL.h>
#include <kelp_player/kelp_player_c.h>
#include <stdio.h>

enum { PLAYING, COMPLETED, FAILED };

// What the player tells. It comes on a thread of the player's.
static void on_prepared(void* state, kelp_player* player, int has_video, int has_audio) {
    if (!kelp_player_start(player)) {
        SDL_AtomicSet(state, FAILED);
    }
}

static void on_completed(void* state, kelp_player* player) {
    SDL_AtomicSet(state, COMPLETED);
}

static void on_failed(void* state, kelp_player* player, int failure) {
    SDL_AtomicSet(state, FAILED);  // the log's last line says why
}

int main(int argc, char** argv) {
    if (argc != 2 || SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) != 0) {
        fprintf(stderr, "%s\n", argc != 2 ? "usage: c_host FILE" : SDL_GetError());
        return 2;
    }
    SDL_Window* window = SDL_CreateWindow("c_host", 100, 100, 1280, 720, SDL_WINDOW_OPENGL);

    SDL_atomic_t state = {PLAYING};
    const kelp_player_events events = {.size = sizeof(events),
                                       .user = &state,
                                       .on_prepared = on_prepared,
                                       .on_failed = on_failed,
                                       .on_completed = on_completed};
    kelp_player* player = kelp_player_create(&events);
    kelp_player_set_option(player, "preset", "recommended");  // what a new program should ask for, see docs/options.md
    kelp_player_set_option(player, "log_level", "error");
    kelp_player_add_window(player, window, KELP_WINDOW_TYPE_SDL, 1280, 720);
    kelp_player_set_sync_master(player, KELP_SYNC_MASTER_AUDIO);
    kelp_player_set_data_source(player, argv[1], 0);
    if (!kelp_player_prepare_async(player)) {  // goes on with on_prepared, or on_failed
        fprintf(stderr, "%s\n", kelp_last_error());
        SDL_AtomicSet(&state, FAILED);
    }

    SDL_Event event = {0};
    while (event.type != SDL_QUIT && SDL_AtomicGet(&state) == PLAYING) {
        SDL_WaitEventTimeout(&event, 20);
    }

    kelp_player_destroy(player);  // stops it
    SDL_DestroyWindow(window);
    SDL_Quit();
    return SDL_AtomicGet(&state) == FAILED;
}
