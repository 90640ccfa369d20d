#include <string.h>
#include <unistd.h>

#include "playback.h"
#include "tests.h"

enum { WRITTEN, NOT_WRITTEN, SINK_END, READY, GONE };

typedef struct writing {
    tally told;
    kelp_muxer* muxer;
    int64_t time_us;
} writing;

static void on_packet(void* user, const kelp_packet* packet) {
    writing* const it = user;
    if (packet->kind == KELP_TRACK_KIND_VIDEO) {
        it->time_us += 40000;
        tally_add(&it->told, kelp_muxer_output_frame(it->muxer, packet->data, (unsigned int)packet->data_size,
                                                     it->time_us, packet->is_key_frame)
                                 ? WRITTEN
                                 : NOT_WRITTEN);
    }
}

static void on_end(void* user) {
    tally_add(&((writing*)user)->told, SINK_END);
}

static void on_prepared(void* user, kelp_player* player, int has_video, int has_audio) {
    CHECK(has_video == 1 && has_audio == 0);
    CHECK(kelp_player_get_info(player, KELP_INFO_WIDTH) == 640);
    CHECK(kelp_player_get_info(player, KELP_INFO_DURATION) > 2000);
    tally_add(&((writing*)user)->told, READY);
}

static void on_failed(void* user, kelp_player* player, int failure) {
    (void)user;
    (void)player;
    (void)failure;
    CHECK(!"what was written can be opened");
}

/* The video of a transport stream goes into a file as it is. */
void muxer_test(void) {
    writing it = {TALLY_INITIALIZER, NULL, 0};
    const char* const path = path_in(scratch_folder, "muxed.mp4");
    kelp_packet_sink* sink;
    playback source;
    kelp_player* player;
    kelp_muxer_video video = {
        .codec = KELP_VIDEO_CODEC_HEVC, .width = 640, .height = 360, .pix_format = KELP_PIX_FMT_YUV420P};
    CHECK(it.muxer = kelp_muxer_create());
    CHECK(kelp_muxer_set_option(it.muxer, "use_editlist", "0") == 1);
    CHECK(kelp_muxer_set_option(it.muxer, NULL, "0") == 0 && kelp_muxer_set_option(it.muxer, "a", NULL) == 0);
    CHECK(kelp_muxer_output_frame(it.muxer, (const uint8_t*)"x", 1, 0, 1) == 0);
    CHECK(kelp_muxer_output_frame(it.muxer, NULL, 1, 0, 1) == 0);
    CHECK(strstr(kelp_muxer_last_error(it.muxer), "kelp_muxer_output_frame: "));
    CHECK(kelp_muxer_open(it.muxer, path, &video, 90000) == 0); /* no size */
    video.size = sizeof(video);
    video.pix_format = KELP_PIX_FMT_PACKET + 1;
    CHECK(kelp_muxer_open(it.muxer, path, &video, 90000) == 0);
    CHECK(strstr(kelp_muxer_last_error(it.muxer), "there is no such layout"));
    video.pix_format = KELP_PIX_FMT_NONE;
    video.codec = KELP_VIDEO_CODEC_OTHER + 1;
    CHECK(kelp_muxer_open(it.muxer, path, &video, 90000) == 0);
    CHECK(strstr(kelp_muxer_last_error(it.muxer), "there is no such codec"));
    video.codec = KELP_VIDEO_CODEC_HEVC;
    CHECK(kelp_muxer_open(it.muxer, NULL, &video, 90000) == 0 && kelp_muxer_open(it.muxer, path, NULL, 90000) == 0);
    CHECK(kelp_muxer_open(it.muxer, "nothing it knows", &video, 90000) == 0);
    CHECK(kelp_muxer_open(it.muxer, path, &video, 90000) == 1);

    const kelp_packet_sink_calls calls = {.size = sizeof(calls), .user = &it, .on_packet = on_packet, .on_end = on_end};
    CHECK(sink = kelp_packet_sink_create(&calls));
    playback_open(&source);
    CHECK(kelp_player_set_packet_sink(source.player, sink) == 1);
    playback_begin(&source, path_in(media_folder, "hevc.ts"));
    tally_wait(&it.told, SINK_END, 1);
    playback_close(&source);
    kelp_packet_sink_destroy(sink);
    CHECK(tally_get(&it.told, WRITTEN) == 75 && tally_get(&it.told, NOT_WRITTEN) == 0);
    CHECK(kelp_muxer_stop(it.muxer) == 1 && kelp_muxer_close(it.muxer) == 1);
    kelp_muxer_destroy(it.muxer);

    const kelp_player_events events = {
        .size = sizeof(events), .user = &it, .on_prepared = on_prepared, .on_failed = on_failed};
    CHECK(player = kelp_player_create(&events));
    CHECK(kelp_player_set_data_source(player, path, 0) == 1 && kelp_player_prepare_async(player) == 1);
    tally_wait(&it.told, READY, 1);
    kelp_player_destroy(player);
    CHECK(unlink(path) == 0);

    kelp_muxer_destroy(NULL);
    CHECK(kelp_muxer_last_error(NULL) && kelp_muxer_set_option(NULL, "a", "b") == 0);
    CHECK(kelp_muxer_open(NULL, path, &video, 90000) == 0 && kelp_muxer_stop(NULL) == 0);
    CHECK(kelp_muxer_close(NULL) == 0 && kelp_muxer_output_frame(NULL, NULL, 0, 0, 0) == 0);
}
