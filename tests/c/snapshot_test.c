#include <string.h>
#include <unistd.h>

#include "playback.h"
#include "tests.h"

void snapshot_test(void) {
    const char* const path = path_in(scratch_folder, "shown.png");
    unsigned char head[24];
    FILE* file;
    playback it;
    playback_open(&it);
    CHECK(kelp_player_take_snapshot(it.player, path) == 0); /* nothing has been shown */
    CHECK(strstr(kelp_player_last_error(it.player), "kelp_player_take_snapshot: "));
    CHECK(kelp_player_take_snapshot(it.player, NULL) == 0 && kelp_player_take_snapshot(NULL, path) == 0);
    playback_begin(&it, path_in(media_folder, "short.mp4"));
    tally_wait(&it.told, COMPLETED, 1);
    CHECK(kelp_player_take_snapshot(it.player, path) == 1);
    playback_close(&it);
    CHECK(file = fopen(path, "rb"));
    CHECK(fread(head, 1, sizeof(head), file) == sizeof(head));
    CHECK(memcmp(head, "\x89PNG", 4) == 0 && head[19] == 160 && head[23] == 90); /* its size */
    fclose(file);
    CHECK(unlink(path) == 0);
}
