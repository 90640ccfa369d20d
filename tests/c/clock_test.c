#include <string.h>

#include "playback.h"
#include "tests.h"

enum { ASKED };

/* A clock of the host's that takes 5 ms from one answer to the next. */
typedef struct slow_clock {
    tally told;
    int64_t start_ms;
} slow_clock;

static int64_t get_time_ms(void* user) {
    slow_clock* const asked = user;
    tally_add(&asked->told, ASKED);
    return asked->start_ms + 5 * (int64_t)tally_get(&asked->told, ASKED);
}

static int64_t get_no_sync_threshold_ms(void* user) {
    (void)user;
    return 20000;
}

static int is_force_sync(void* user) {
    (void)user;
    return 1;
}

void clock_test(void) {
    slow_clock asked = {TALLY_INITIALIZER, 1000};
    kelp_clock *own, *ready;
    playback it;

    CHECK(ready = kelp_clock_create(5000, 10000));
    CHECK(kelp_clock_pause(ready) == 1 && kelp_clock_reset(ready, 7000) == 1);
    CHECK(kelp_clock_get_time_ms(ready) == 7000);
    CHECK(kelp_clock_resume(ready) == 1);
    CHECK(kelp_get_sample_correction_percent_max() == 10);
    CHECK(kelp_clock_set_speed(ready, 2.0) == 1 && kelp_get_sample_correction_percent_max() > 10);
    CHECK(kelp_clock_set_speed(ready, 1.0) == 1 && kelp_get_sample_correction_percent_max() == 10);
    kelp_set_sample_correction_percent_max(20);
    CHECK(kelp_get_sample_correction_percent_max() == 20);
    kelp_set_sample_correction_percent_max(10);

    kelp_clock_calls calls = {.size = sizeof(calls), .user = &asked};
    CHECK(kelp_clock_create_own(&calls) == NULL && kelp_clock_create_own(NULL) == NULL);
    calls.get_time_ms = get_time_ms;
    calls.get_no_sync_threshold_ms = get_no_sync_threshold_ms;
    calls.is_force_sync = is_force_sync;
    CHECK(own = kelp_clock_create_own(&calls));
    CHECK(kelp_clock_get_time_ms(own) == 1005);
    CHECK(kelp_clock_pause(own) == 0 && kelp_clock_resume(own) == 0 && kelp_clock_reset(own, 1) == 0);
    CHECK(kelp_clock_set_speed(own, 1.0) == 0 && strstr(kelp_last_error(), "the host's own"));
    CHECK(strcmp(kelp_clock_last_error(own), "kelp_clock_set_speed: the clock is the host's own") == 0);
    CHECK(strcmp(kelp_clock_last_error(ready), "") == 0);

    playback_open(&it);
    CHECK(kelp_player_set_offset(it.player, 300) == 0); /* no clock */
    CHECK(kelp_player_set_clock(it.player, own) == 1);
    CHECK(kelp_player_set_sync_master(it.player, KELP_SYNC_MASTER_CLOCK) == 1);
    CHECK(kelp_player_set_data_source(it.player, path_in(media_folder, "small.mp4"), 1000) == 1);
    CHECK(kelp_player_prepare_async(it.player) == 1);
    tally_wait(&it.told, FRAME, 2);
    tally_wait(&asked.told, ASKED, 3);
    CHECK(kelp_player_set_offset(it.player, 900) == 1);
    CHECK(kelp_player_set_clock(it.player, ready) == 1);
    CHECK(kelp_player_set_clock(it.player, NULL) == 1);
    playback_close(&it);
    kelp_clock_destroy(own);
    kelp_clock_destroy(ready);
    kelp_clock_destroy(NULL);

    CHECK(kelp_clock_get_time_ms(NULL) == 0 && kelp_clock_pause(NULL) == 0 && kelp_clock_resume(NULL) == 0);
    CHECK(kelp_clock_reset(NULL, 0) == 0 && kelp_clock_set_speed(NULL, 1) == 0);
    CHECK(strstr(kelp_clock_last_error(NULL), "kelp_clock_set_speed: the handle is null"));
    CHECK(kelp_player_set_clock(NULL, NULL) == 0 && kelp_player_set_offset(NULL, 0) == 0);
}
