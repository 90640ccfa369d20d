#include <string.h>

#include "playback.h"
#include "tests.h"

/* Mute, and the devices that there are; on a machine without one there are none. */
void sound_test(void) {
    playback it;
    kelp_audio_devices* devices;
    size_t i;
    playback_open(&it);
    CHECK(kelp_player_is_muted(it.player) == 0);
    CHECK(kelp_player_set_mute(it.player, 1) == 1 && kelp_player_is_muted(it.player) == 1);
    playback_begin(&it, path_in(media_folder, "short.mp4"));
    tally_wait(&it.told, COMPLETED, 1);
    CHECK(kelp_player_is_muted(it.player) == 1);
    CHECK(kelp_player_set_mute(it.player, 0) == 1 && kelp_player_is_muted(it.player) == 0);

    CHECK(devices = kelp_get_audio_devices());
    playback_close(&it);
    for (i = 0; i < kelp_audio_devices_count(devices); ++i) {
        CHECK(kelp_audio_devices_name(devices, i));
    }
    CHECK(strcmp(kelp_audio_devices_last_error(devices), "") == 0);
    CHECK(kelp_audio_devices_name(devices, i) == NULL);
    CHECK(strstr(kelp_audio_devices_last_error(devices), "kelp_audio_devices_name: there aren't so many devices"));
    kelp_audio_devices_free(devices);
    kelp_audio_devices_free(NULL);
    CHECK(kelp_audio_devices_count(NULL) == 0 && kelp_audio_devices_name(NULL, 0) == NULL);
    CHECK(strstr(kelp_audio_devices_last_error(NULL), "the handle is null"));
    CHECK(kelp_player_set_mute(NULL, 1) == 0 && kelp_player_is_muted(NULL) == 0);
}
