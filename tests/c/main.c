/* Calls the library as a host in C does. Arguments: the folder of the media files; options are ignored. */
#include <string.h>
#include <unistd.h>

#include "check.h"
#include "tests.h"

const char* media_folder = KELP_TEST_MEDIA_DIR;
const char* scratch_folder;

static const struct {
    const char* name;
    void (*run)(void);
} kTests[] = {
    {"library", library_test},
    {"player", player_test},
    {"events", events_test},
    {"timers", timers_test},
    {"sinks", sinks_test},
    {"failures", failures_test},
    {"texts", texts_test},
    {"tracks", tracks_test},
    {"statistics", statistics_test},
    {"packets", packets_test},
    {"recorder", recorder_test},
    {"clock", clock_test},
    {"log", log_test},
    {"muxer", muxer_test},
    {"sizes", sizes_test},
    {"snapshot", snapshot_test},
    {"step", step_test},
    {"stall", stall_test},
    {"subtitles", subtitles_test},
    {"sound", sound_test},
    {"udp", udp_test},
    {"udp_failure", udp_failure_test},
};

int main(void) {
    char folder[] = "/tmp/kelp_c_XXXXXX";
    size_t i;
    CHECK(scratch_folder = mkdtemp(folder));
    CHECK(setenv("SDL_VIDEODRIVER", "dummy", 1) == 0);
    CHECK(setenv("SDL_AUDIODRIVER", "dummy", 1) == 0);
    for (i = 0; i < sizeof(kTests) / sizeof(kTests[0]); ++i) {
        printf("%s\n", kTests[i].name);
        fflush(stdout);
        kTests[i].run();
    }
    CHECK(rmdir(folder) == 0);
    return 0;
}
