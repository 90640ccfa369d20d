#include <string.h>

#include "playback.h"
#include "tests.h"

void library_test(void) {
    CHECK(strcmp(kelp_version(), KELP_PLAYER_VERSION) == 0);
    CHECK(kelp_last_error());
}

/* A file from its beginning to its end, and once more. */
void player_test(void) {
    playback it;
    playback_open(&it);
    CHECK(kelp_player_set_sync_master(it.player, KELP_SYNC_MASTER_AUDIO) == 1);
    CHECK(kelp_player_enable_hw_decoder(it.player, 0, KELP_HW_DECODE_NONE) == 1);
    CHECK(kelp_player_set_speed(it.player, 1.0f) == 1);
    playback_begin(&it, path_in(media_folder, "short.mp4"));
    tally_wait(&it.told, STARTED, 1);
    CHECK(kelp_player_get_duration(it.player) > 400);
    CHECK(kelp_player_get_info(it.player, KELP_INFO_WIDTH) == 160);
    CHECK(kelp_player_get_info(it.player, KELP_INFO_HEIGHT) == 90);
    CHECK(kelp_player_get_info(it.player, KELP_INFO_FPS) == 25);
    CHECK(kelp_player_get_info(it.player, KELP_INFO_ROTATE) == 0);
    CHECK(kelp_player_get_info(it.player, KELP_INFO_DURATION) == kelp_player_get_duration(it.player));
    tally_wait(&it.told, COMPLETED, 1);
    CHECK(tally_get(&it.told, PREPARED) == 1 && tally_get(&it.told, FAILED) == 0);
    CHECK(tally_get(&it.told, SIZE) >= 1 && tally_get(&it.told, SINK_SIZE) == 1);
    CHECK(tally_get(&it.told, FIRST_VIDEO) == 1 && tally_get(&it.told, FIRST_AUDIO) == 1);
    CHECK(tally_get(&it.told, FRAME) >= 10);
    CHECK(kelp_player_get_current_time(it.player) > 400);

    CHECK(kelp_player_set_volume(it.player, 0.5f) == 1);
    CHECK(kelp_player_seek(it.player, 0) == 1);
    CHECK(kelp_player_pause(it.player) == 1);
    tally_wait(&it.told, FIRST_VIDEO, 2);
    CHECK(kelp_player_resume(it.player) == 1);
    tally_wait(&it.told, COMPLETED, 2);
    CHECK(kelp_player_stop(it.player) == 1);
    CHECK(it.frame.width == 160 && it.frame.height == 90 && it.sum_of_last_row > 0);

    CHECK(kelp_player_reset(it.player) == 1);
    playback_begin(&it, path_in(media_folder, "short.mp4"));
    tally_wait(&it.told, COMPLETED, 3);
    playback_close(&it);
}

/* Without events, and with those of a host that knows fewer of them. */
void events_test(void) {
    kelp_player_events fewer;
    kelp_player* player = kelp_player_create(NULL);
    CHECK(player);
    CHECK(kelp_player_set_data_source(player, "", 0) == 1);
    CHECK(kelp_player_prepare_async(player) == 0);
    kelp_player_destroy(player);

    memset(&fewer, 0xff, sizeof(fewer)); /* what isn't there is never called */
    fewer.size = offsetof(kelp_player_events, on_video_size);
    fewer.user = NULL;
    player = kelp_player_create(&fewer);
    CHECK(player);
    CHECK(kelp_player_set_data_source(player, path_in(media_folder, "missing.mp4"), 0) == 1);
    CHECK(kelp_player_prepare_async(player) == 1);
    kelp_player_destroy(player);
    kelp_player_destroy(NULL);
}
