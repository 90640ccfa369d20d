#include <string.h>
#include <unistd.h>

#include "playback.h"
#include "tests.h"

enum { STREAMS, VIDEO_PACKET, AUDIO_PACKET, GAP, END, FILE_BEGUN, FILE_ENDED, LOST, RECORDING_FAILED, READY };

typedef struct tee {
    tally told;
    kelp_packet_sink* next;
} tee;

static void on_streams(void* user, const kelp_packet_stream* const* streams, size_t count) {
    tee* const told = user;
    CHECK(count == 2 && streams[0]->size == sizeof(*streams[0]));
    CHECK(streams[0]->kind == KELP_TRACK_KIND_VIDEO && strcmp(streams[0]->codec, "h264") == 0);
    CHECK(streams[0]->width > 0 && streams[0]->height > 0 && streams[0]->frame_rate > 24);
    CHECK(streams[0]->configuration && streams[0]->configuration_size > 0 && streams[0]->parameters);
    CHECK(streams[0]->time_base_num >= 1 && streams[0]->time_base_den > 1);
    CHECK(streams[1]->kind == KELP_TRACK_KIND_AUDIO && streams[1]->sample_rate == 48000 && streams[1]->channels == 2);
    CHECK(kelp_packet_sink_put_streams(told->next, streams, count) == 1);
    tally_add(&told->told, STREAMS);
}

static void on_packet(void* user, const kelp_packet* packet) {
    tee* const told = user;
    CHECK(packet->size == sizeof(*packet) && packet->data && packet->data_size > 0 && packet->packet);
    CHECK(packet->pts != KELP_NO_TIME && packet->dts != KELP_NO_TIME && packet->duration > 0);
    CHECK(kelp_packet_sink_put_packet(told->next, packet) == 1);
    tally_add(&told->told, packet->kind == KELP_TRACK_KIND_VIDEO ? VIDEO_PACKET : AUDIO_PACKET);
}

static void on_gap(void* user) {
    tee* const told = user;
    CHECK(kelp_packet_sink_put_gap(told->next) == 1);
    tally_add(&told->told, GAP);
}

static void on_end(void* user) {
    tee* const told = user;
    CHECK(kelp_packet_sink_put_end(told->next) == 1);
    tally_add(&told->told, END);
}

static kelp_packet_sink* make_tee(tee* made) {
    kelp_packet_sink* sink;
    const kelp_packet_sink_calls calls = {.size = sizeof(calls),
                                          .user = made,
                                          .on_streams = on_streams,
                                          .on_packet = on_packet,
                                          .on_gap = on_gap,
                                          .on_end = on_end};
    CHECK(sink = kelp_packet_sink_create(&calls));
    return sink;
}

static void on_file_begun(void* user, const char* path) {
    CHECK(strstr(path, "recorded"));
    tally_add(user, FILE_BEGUN);
}

static void on_file_ended(void* user, const char* path, int64_t duration_ms) {
    CHECK(strstr(path, "recorded") && duration_ms > 400);
    tally_add(user, FILE_ENDED);
}

static void on_packets_lost(void* user, int packets) {
    CHECK(packets > 0);
    tally_add(user, LOST);
}

static void on_recording_failed(void* user, const char* path, const char* reason) {
    CHECK(strstr(path, "missing") && strlen(reason) > 0);
    tally_add(user, RECORDING_FAILED);
}

static kelp_recorder* make_recorder(tally* told) {
    kelp_recorder* recorder;
    const kelp_recorder_events events = {.size = sizeof(events),
                                         .user = told,
                                         .on_file_begun = on_file_begun,
                                         .on_file_ended = on_file_ended,
                                         .on_packets_lost = on_packets_lost,
                                         .on_failed = on_recording_failed};
    CHECK(recorder = kelp_recorder_create(&events));
    return recorder;
}

static void plays(const char* path) {
    playback it;
    playback_open(&it);
    playback_begin(&it, path);
    tally_wait(&it.told, COMPLETED, 1);
    CHECK(tally_get(&it.told, FRAME) >= 10);
    playback_close(&it);
}

/* A sink of the host's that hands on to one more, and that one to a recorder. */
void packets_test(void) {
    tee first = {TALLY_INITIALIZER, NULL}, second = {TALLY_INITIALIZER, NULL};
    tally told = TALLY_INITIALIZER;
    kelp_recorder* const recorder = make_recorder(&told);
    kelp_packet_sink *one, *two;
    playback it;
    second.next = kelp_recorder_get_sink(recorder);
    first.next = two = make_tee(&second);
    one = make_tee(&first);

    kelp_recorder_limits limits = {0};
    CHECK(kelp_recorder_start(recorder, path_in(scratch_folder, "recorded.mp4"), &limits) == 0); /* no size */
    limits.size = sizeof(limits);
    CHECK(kelp_recorder_start(recorder, path_in(scratch_folder, "recorded.xyz"), &limits) == 0);
    CHECK(strstr(kelp_recorder_last_error(recorder), "kelp_recorder_start: "));
    CHECK(kelp_recorder_is_recording(recorder) == 0);
    CHECK(kelp_recorder_start(recorder, path_in(scratch_folder, "recorded.mp4"), &limits) == 1);
    CHECK(kelp_recorder_is_recording(recorder) == 1);

    playback_open(&it);
    CHECK(kelp_player_set_packet_sink(it.player, one) == 1);
    playback_begin(&it, path_in(media_folder, "short.mp4"));
    tally_wait(&first.told, END, 1);
    CHECK(tally_get(&first.told, STREAMS) == 1 && tally_get(&second.told, STREAMS) == 1);
    CHECK(tally_get(&first.told, VIDEO_PACKET) == 13 && tally_get(&second.told, VIDEO_PACKET) == 13);
    CHECK(tally_get(&first.told, AUDIO_PACKET) > 10);
    tally_wait(&it.told, COMPLETED, 1);
    CHECK(kelp_player_seek(it.player, 0) == 1);
    tally_wait(&second.told, END, 2);
    CHECK(tally_get(&first.told, GAP) + tally_get(&first.told, STREAMS) >= 2);
    CHECK(kelp_player_set_packet_sink(it.player, NULL) == 1);
    CHECK(kelp_recorder_stop(recorder) == 1);
    CHECK(tally_get(&told, FILE_BEGUN) >= 1 && tally_get(&told, FILE_ENDED) == tally_get(&told, FILE_BEGUN));
    CHECK(tally_get(&told, LOST) == 0 && tally_get(&told, RECORDING_FAILED) == 0);
    playback_close(&it);

    plays(path_in(scratch_folder, "recorded.mp4"));
    CHECK(unlink(path_in(scratch_folder, "recorded.mp4")) == 0);
    unlink(path_in(scratch_folder, "recorded-2.mp4"));
    kelp_packet_sink_destroy(one);
    kelp_packet_sink_destroy(two);
    kelp_recorder_destroy(recorder);
}

/* A recorder that is a player's sink itself, without events; and one that can't create its file. */
void recorder_test(void) {
    tally told = TALLY_INITIALIZER;
    kelp_recorder* const silent = kelp_recorder_create(NULL);
    kelp_recorder* const failing = make_recorder(&told);
    playback it;
    CHECK(silent);
    CHECK(kelp_recorder_start(silent, path_in(scratch_folder, "recorded.mkv"), NULL) == 1);
    playback_open(&it);
    CHECK(kelp_player_set_packet_sink(it.player, kelp_recorder_get_sink(silent)) == 1);
    playback_begin(&it, path_in(media_folder, "short.mp4"));
    tally_wait(&it.told, COMPLETED, 1);
    CHECK(kelp_recorder_stop(silent) == 1 && kelp_recorder_stop(silent) == 1);

    CHECK(kelp_recorder_start(failing, "/missing/folder/recorded.mp4", NULL) == 1);
    CHECK(kelp_player_set_packet_sink(it.player, kelp_recorder_get_sink(failing)) == 1);
    CHECK(kelp_player_seek(it.player, 0) == 1);
    tally_wait(&told, RECORDING_FAILED, 1);
    CHECK(strstr(kelp_recorder_last_error(failing), "on_failed: "));
    playback_close(&it);
    plays(path_in(scratch_folder, "recorded.mkv"));
    CHECK(unlink(path_in(scratch_folder, "recorded.mkv")) == 0);

    kelp_packet_sink_destroy(kelp_recorder_get_sink(silent)); /* refused: it goes with the recorder */
    CHECK(strstr(kelp_packet_sink_last_error(kelp_recorder_get_sink(silent)), "kelp_packet_sink_destroy: "));
    kelp_recorder_destroy(silent);
    kelp_recorder_destroy(failing);
    kelp_recorder_destroy(NULL);
    kelp_packet_sink_destroy(NULL);

    CHECK(kelp_recorder_get_sink(NULL) == NULL && kelp_recorder_stop(NULL) == 0);
    CHECK(kelp_recorder_start(NULL, "a.mp4", NULL) == 0 && kelp_recorder_is_recording(NULL) == 0);
    CHECK(kelp_recorder_last_error(NULL));
    CHECK(kelp_player_set_packet_sink(NULL, NULL) == 0 && kelp_packet_sink_create(NULL) == NULL);
    CHECK(kelp_packet_sink_put_streams(NULL, NULL, 0) == 0 && kelp_packet_sink_put_packet(NULL, NULL) == 0);
    CHECK(kelp_packet_sink_put_gap(NULL) == 0 && kelp_packet_sink_put_end(NULL) == 0);
    CHECK(strstr(kelp_packet_sink_last_error(NULL), "kelp_packet_sink_put_end: the handle is null"));
}
