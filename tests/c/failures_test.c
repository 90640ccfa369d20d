#include <string.h>

#include "playback.h"
#include "tests.h"

/* A name that no error has room for is cut, but between two characters. */
static void long_names(void) {
    kelp_recorder* const recorder = kelp_recorder_create(NULL);
    char name[1024];
    size_t letters, i;
    CHECK(recorder);
    for (letters = 0; letters < 2; ++letters) {
        memset(name, 'a', sizeof(name));
        for (i = letters; i + 1 < 700; i += 2) {
            memcpy(name + i, "\xC3\xBC", 2);
        }
        strcpy(name + i, ".xyz");
        CHECK(kelp_recorder_start(recorder, name, NULL) == 0);
        CHECK(strstr(kelp_recorder_last_error(recorder), "\xC3\xBC\xC3\xBC"));
        CHECK(is_utf8(kelp_recorder_last_error(recorder)) && is_utf8(kelp_last_error()));
    }
    CHECK(kelp_recorder_start(recorder, NULL, NULL) == 0 &&
          strstr(kelp_recorder_last_error(recorder), "a text is null"));
    kelp_recorder_destroy(recorder);
}

static void swallow(void* user, const char* line) {
    CHECK(strlen(line) > 0);
    ++*(int*)user;
}

/* Null handles and texts, calls that don't fit, and a source that isn't there: each leaves its text. */
void failures_test(void) {
    playback it;
    const kelp_player_events events = {0}; /* a size of 0 */
    int lines = 0;
    CHECK(kelp_player_seek(NULL, 0) == 0);
    CHECK(strstr(kelp_last_error(), "kelp_player_seek: the handle is null"));
    CHECK(strcmp(kelp_player_last_error(NULL), kelp_last_error()) == 0);
    CHECK(kelp_player_set_data_source(NULL, "x", 0) == 0 && kelp_player_prepare_async(NULL) == 0);
    CHECK(kelp_player_start(NULL) == 0 && kelp_player_stop(NULL) == 0 && kelp_player_reset(NULL) == 0);
    CHECK(kelp_player_pause(NULL) == 0 && kelp_player_resume(NULL) == 0);
    CHECK(kelp_player_get_current_time(NULL) == 0 && kelp_player_get_duration(NULL) == 0);
    CHECK(kelp_player_get_info(NULL, KELP_INFO_WIDTH) == 0);
    CHECK(kelp_player_set_volume(NULL, 1) == 0 && kelp_player_set_speed(NULL, 1) == 0);
    CHECK(kelp_player_enable_hw_decoder(NULL, 1, 3) == 0 && kelp_player_set_sync_master(NULL, 0) == 0);
    CHECK(kelp_player_set_option(NULL, "a", "b") == 0 && kelp_player_remove_timer(NULL, 1) == 0);
    CHECK(kelp_player_add_window(NULL, NULL, 1, 1, 1) == 0 && kelp_player_remove_window(NULL, NULL) == 0);
    CHECK(kelp_player_pause_window(NULL, NULL, 1) == 0);
    CHECK(kelp_player_create(&events) == NULL);
    CHECK(strstr(kelp_last_error(), "size"));
    CHECK(kelp_frame_sink_create(NULL) == NULL);

    playback_open(&it);
    CHECK(strcmp(kelp_player_last_error(it.player), "") == 0);
    CHECK(kelp_player_start(it.player) == 0 && kelp_player_stop(it.player) == 0);
    CHECK(kelp_player_seek(it.player, 100) == 0 && kelp_player_set_volume(it.player, 1) == 0);
    CHECK(strstr(kelp_player_last_error(it.player), "kelp_player_set_volume: "));
    CHECK(kelp_player_set_data_source(it.player, NULL, 0) == 0);
    CHECK(strstr(kelp_player_last_error(it.player), "kelp_player_set_data_source: a text is null"));
    CHECK(kelp_player_set_speed(it.player, 0) == 0 && kelp_player_set_speed(it.player, -1) == 0);
    CHECK(kelp_player_set_sync_master(it.player, 3) == 0 && kelp_player_set_sync_master(it.player, -1) == 0);
    CHECK(kelp_player_enable_hw_decoder(it.player, 1, 4) == 0 && strstr(kelp_player_last_error(it.player), "mode"));
    CHECK(kelp_player_get_info(it.player, 99) == 0 && strstr(kelp_player_last_error(it.player), "get_info: "));
    CHECK(kelp_player_get_info(it.player, -1) == 0);
    CHECK(kelp_player_set_option(it.player, "preset", NULL) == 0 && kelp_player_set_option(it.player, NULL, "") == 0);
    CHECK(kelp_player_add_frame_sink(it.player, NULL) == 0 && kelp_player_add_frame_sink(NULL, it.sink) == 0);
    CHECK(kelp_player_remove_frame_sink(it.player, NULL) == 0 && kelp_player_remove_frame_sink(NULL, it.sink) == 0);
    CHECK(kelp_player_pause_frame_sink(it.player, NULL, 1) == 0 && kelp_player_pause_frame_sink(NULL, it.sink, 1) == 0);
    CHECK(strstr(kelp_last_error(), "kelp_player_pause_frame_sink: the handle is null"));

    /* In the log's words where it has some. */
    CHECK(kelp_log_set_callback(swallow, &lines, NULL) == 1);
    kelp_log_set_level(KELP_LOG_ERROR);
    CHECK(kelp_player_start(it.player) == 0);
    CHECK(strcmp(kelp_player_last_error(it.player), "kelp_player_start: start, error state:1") == 0);
    CHECK(lines == 1);
    long_names();
    lines = 1;
    kelp_log_set_level(KELP_LOG_NONE);
    CHECK(kelp_player_start(it.player) == 0);
    CHECK(strstr(kelp_player_last_error(it.player), "kelp_player_start: refused; at the log's level error"));
    CHECK(lines == 1);
    CHECK(kelp_log_set_callback(NULL, NULL, NULL) == 1);

    playback_begin(&it, path_in(media_folder, "missing.mp4"));
    tally_wait(&it.told, FAILED, 1);
    CHECK(it.failure == KELP_FAILURE_STREAM);
    CHECK(strstr(kelp_player_last_error(it.player), "on_failed: the source"));
    playback_close(&it);
}
