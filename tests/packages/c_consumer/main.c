/* A host in C with nothing but the library: plays a file into a frame sink until ten pictures have come. */
#define _DEFAULT_SOURCE
#include <kelp_player/kelp_player_c.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int result = -1; /* guarded by mutex */
static int pictures;

static void set_result(int value) {
    pthread_mutex_lock(&mutex);
    result = value;
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&mutex);
}

static void on_completed(void* user, kelp_player* player) {
    (void)user;
    (void)player;
    set_result(0);
}

static void on_failed(void* user, kelp_player* player, int failure) {
    (void)user;
    fprintf(stderr, "%s\n", kelp_player_last_error(player));
    set_result(2 + failure);
}

static void on_frame(void* user, const kelp_frame* frame) {
    int64_t* const last = user;
    if (frame->pts_ms != *last && ++pictures == 10) {
        set_result(0);
    }
    *last = frame->pts_ms;
}

int main(int argc, char** argv) {
    int64_t last = -1;
    kelp_player_events events = {0};
    kelp_frame_sink_calls calls = {0};
    kelp_player* player;
    kelp_frame_sink* sink;
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    events.size = sizeof(events);
    events.on_completed = on_completed;
    events.on_failed = on_failed;
    calls.size = sizeof(calls);
    calls.user = &last;
    calls.on_frame = on_frame;
    player = kelp_player_create(&events);
    sink = kelp_frame_sink_create(&calls);
    kelp_player_set_option(player, "log_level", "error");
    kelp_player_add_frame_sink(player, sink);
    if (argc != 2 || !kelp_player_set_data_source(player, argv[1], 0) || !kelp_player_prepare_async(player) ||
        !kelp_player_start(player)) {
        fprintf(stderr, "%s\n", kelp_last_error());
        return 2;
    }
    pthread_mutex_lock(&mutex);
    while (result == -1) {
        pthread_cond_wait(&changed, &mutex);
    }
    pthread_mutex_unlock(&mutex);
    kelp_player_destroy(player);
    kelp_frame_sink_destroy(sink);
    printf("%d pictures, by version %s\n", pictures, kelp_version());
    return result != 0 || pictures < 10;
}
