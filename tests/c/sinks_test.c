#include <string.h>

#include "playback.h"
#include "tests.h"

static void count(void* user, const kelp_frame* frame) {
    (void)frame;
    tally_add(user, FRAME);
}

/* A second sink beside the first, paused and removed; and a window that can't be. */
void sinks_test(void) {
    playback it;
    tally second = TALLY_INITIALIZER;
    kelp_frame_sink* sink;
    int frames;
    const kelp_frame_sink_calls calls = {.size = sizeof(calls), .user = &second, .on_frame = count};
    CHECK(sink = kelp_frame_sink_create(&calls));

    playback_open(&it);
    CHECK(kelp_player_set_option(it.player, "preset", "standard") == 1); /* tells a corrected duration */
    CHECK(kelp_player_add_frame_sink(it.player, sink) == 1);
    playback_begin(&it, path_in(media_folder, "small.mp4"));
    tally_wait(&second, FRAME, 2);
    CHECK(kelp_player_pause_frame_sink(it.player, sink, 1) == 1);
    CHECK(kelp_player_pause_frame_sink(it.player, sink, 0) == 1);
    CHECK(kelp_player_remove_frame_sink(it.player, sink) == 1);
    frames = tally_get(&it.told, FRAME);
    tally_wait(&it.told, FRAME, frames + 2);
    tally_wait(&it.told, DURATION, 1);

    CHECK(kelp_player_add_window(it.player, NULL, KELP_WINDOW_TYPE_SDL, 16, 16) == 1);
    CHECK(kelp_player_pause_window(it.player, NULL, 1) == 1);
    CHECK(kelp_player_remove_window(it.player, NULL) == 1);
    CHECK(kelp_player_add_window(it.player, &it, 3, 16, 16) == 0); /* sinks have calls of their own */
    CHECK(strstr(kelp_player_last_error(it.player), "type of window"));
    playback_close(&it);
    kelp_frame_sink_destroy(sink);
    kelp_frame_sink_destroy(NULL);
}
