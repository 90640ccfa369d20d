#include <string.h>

#include "playback.h"
#include "tests.h"

enum { CALLED, RELEASED };

static void call(void* user) {
    tally_add(user, CALLED);
}

static void release(void* user) {
    tally_add(user, RELEASED);
}

static void expect_null(void* user) {
    CHECK(user == NULL);
}

void timers_test(void) {
    tally once = TALLY_INITIALIZER, again = TALLY_INITIALIZER, work = TALLY_INITIALIZER, never = TALLY_INITIALIZER;
    unsigned int id;
    kelp_player* const player = kelp_player_create(NULL);
    CHECK(player);
    CHECK(kelp_player_run_in_worker(player, call, &work, release) == 1);
    tally_wait(&work, RELEASED, 1);
    CHECK(kelp_player_run_in_worker(player, expect_null, NULL, NULL) == 1);
    CHECK(kelp_player_add_timer(player, 1, 1, expect_null, NULL, NULL) >= 1);
    CHECK(tally_get(&work, CALLED) == 1);

    CHECK(kelp_player_add_timer(player, 1, 1, call, &once, release) >= 1);
    tally_wait(&once, RELEASED, 1);
    CHECK(tally_get(&once, CALLED) == 1);

    id = kelp_player_add_timer(player, 1, 0, call, &again, release);
    CHECK(id >= 1);
    tally_wait(&again, CALLED, 3);
    CHECK(kelp_player_remove_timer(player, id) == 1);
    tally_wait(&again, RELEASED, 1);

    /* What fails is released as well, and so is what the player takes with it. */
    CHECK(kelp_player_add_timer(player, 0, 1, call, &never, release) == 0);
    CHECK(tally_get(&never, RELEASED) == 1);
    CHECK(kelp_player_add_timer(NULL, 1, 1, call, &never, release) == 0);
    CHECK(kelp_player_run_in_worker(player, NULL, &never, release) == 0);
    CHECK(kelp_player_run_in_worker(NULL, call, &never, release) == 0);
    CHECK(tally_get(&never, RELEASED) == 4);
    CHECK(kelp_player_add_timer(player, 1, 1, NULL, &never, release) == 0);
    CHECK(strstr(kelp_player_last_error(player), "kelp_player_add_timer: the callback is null"));
    CHECK(tally_get(&never, RELEASED) == 5);
    CHECK(kelp_player_add_timer(player, 3600 * 1000, 0, call, &never, release) >= 1);
    CHECK(kelp_player_add_timer(player, 3600 * 1000, 0, call, &never, NULL) >= 1);
    kelp_player_destroy(player);
    CHECK(tally_get(&never, RELEASED) == 6 && tally_get(&never, CALLED) == 0);
}
