#include "playback.h"

#include <string.h>

static void on_video_size(void* user, kelp_player* player, int width, int height, int rotate) {
    playback* const told = user;
    CHECK(player == told->player && width > 0 && height > 0 && rotate == 0);
    tally_add(&told->told, SIZE);
}

static void on_prepared(void* user, kelp_player* player, int has_video, int has_audio) {
    playback* const told = user;
    CHECK(has_video == 1 && has_audio == 1);
    CHECK(kelp_player_start(player) == 1);
    tally_add(&told->told, PREPARED);
}

static void on_started(void* user, kelp_player* player) {
    (void)player;
    tally_add(&((playback*)user)->told, STARTED);
}

static void on_failed(void* user, kelp_player* player, int failure) {
    playback* const told = user;
    (void)player;
    told->failure = failure;
    tally_add(&told->told, FAILED);
}

static void on_first_video_frame(void* user, kelp_player* player, int pts_ms) {
    (void)player;
    CHECK(pts_ms >= 0);
    tally_add(&((playback*)user)->told, FIRST_VIDEO);
}

static void on_first_audio_frame(void* user, kelp_player* player, int pts_ms) {
    (void)player;
    CHECK(pts_ms >= 0);
    tally_add(&((playback*)user)->told, FIRST_AUDIO);
}

static void on_completed(void* user, kelp_player* player) {
    (void)player;
    tally_add(&((playback*)user)->told, COMPLETED);
}

static void on_duration_updated(void* user, kelp_player* player, int duration_ms) {
    (void)player;
    CHECK(duration_ms > 0);
    tally_add(&((playback*)user)->told, DURATION);
}

static void on_size(void* user, int width, int height, int fps) {
    CHECK(width > 0 && height > 0 && fps > 0);
    tally_add(&((playback*)user)->told, SINK_SIZE);
}

static void on_frame(void* user, const kelp_frame* frame) {
    playback* const told = user;
    const uint8_t* last;
    int x, sum = 0;
    CHECK(frame->size == sizeof(*frame));
    CHECK(frame->pix_format == KELP_PIX_FMT_YUV420P && frame->data[0] && frame->data[1] && frame->data[2]);
    last = frame->data[0] + (ptrdiff_t)frame->line_size[0] * (frame->height - 1);
    for (x = 0; x < frame->width; ++x) {
        sum += last[x];
    }
    told->frame = *frame;
    told->sum_of_last_row = sum;
    tally_add(&told->told, FRAME);
}

void playback_open(playback* opened) {
    const tally empty = TALLY_INITIALIZER;
    memset(opened, 0, sizeof(*opened));
    opened->told = empty;

    const kelp_player_events events = {.size = sizeof(events),
                                       .user = opened,
                                       .on_video_size = on_video_size,
                                       .on_prepared = on_prepared,
                                       .on_started = on_started,
                                       .on_failed = on_failed,
                                       .on_first_video_frame = on_first_video_frame,
                                       .on_first_audio_frame = on_first_audio_frame,
                                       .on_completed = on_completed,
                                       .on_duration_updated = on_duration_updated};
    CHECK(opened->player = kelp_player_create(&events));
    CHECK(kelp_player_set_option(opened->player, "log_level", "none") == 1);
    CHECK(kelp_player_set_option(opened->player, "preset", "recommended") == 1);

    const kelp_frame_sink_calls calls = {
        .size = sizeof(calls), .user = opened, .on_size = on_size, .on_frame = on_frame};
    CHECK(opened->sink = kelp_frame_sink_create(&calls));
    CHECK(kelp_player_add_frame_sink(opened->player, opened->sink) == 1);
}

void playback_begin(playback* opened, const char* path) {
    CHECK(kelp_player_set_data_source(opened->player, path, 0) == 1);
    CHECK(kelp_player_prepare_async(opened->player) == 1);
}

void playback_close(playback* opened) {
    kelp_player_stop(opened->player);
    kelp_player_destroy(opened->player);
    kelp_frame_sink_destroy(opened->sink);
}
