#include <limits.h>
#include <unistd.h>

#include "playback.h"
#include "tests.h"

/* Waits for the picture of a time, a minute at most. */
static void wait_for_time(kelp_player* player, int time_ms) {
    int tries;
    for (tries = 0; tries < 6000 && kelp_player_get_current_time(player) != time_ms; ++tries) {
        usleep(10000);
    }
    CHECK(kelp_player_get_current_time(player) == time_ms);
}

/* To the first picture, wherever the pause came, and three on. */
void step_test(void) {
    playback it;
    int tries;
    playback_open(&it);
    CHECK(kelp_player_step_frame(it.player, 1) == 0 && kelp_player_step_frame(NULL, 1) == 0);
    playback_begin(&it, path_in(media_folder, "small.mp4"));
    tally_wait(&it.told, FIRST_VIDEO, 1);
    CHECK(kelp_player_pause(it.player) == 1);
    /* On a busy machine the film may have been at its end before the pause. */
    for (tries = 0; tries < 1000 && !kelp_player_step_frame(it.player, -100); ++tries) {
        kelp_player_seek(it.player, 0);
        kelp_player_pause(it.player);
        usleep(10000);
    }
    wait_for_time(it.player, 0);
    CHECK(kelp_player_step_frame(it.player, 3) == 1);
    wait_for_time(it.player, 120);
    /* Round once more, and on to the end. */
    CHECK(kelp_player_set_loop(NULL, 0, INT_MAX) == 0 && kelp_player_clear_loop(NULL) == 0);
    CHECK(kelp_player_set_loop(it.player, 500, 400) == 0);
    CHECK(kelp_player_set_loop(it.player, 0, INT_MAX) == 1);
    CHECK(kelp_player_clear_loop(it.player) == 1);
    playback_close(&it);
}
