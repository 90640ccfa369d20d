#include <string.h>
#include <unistd.h>

#include "playback.h"
#include "tests.h"

/* Hosts that were compiled with an older header, or a later one: what one side doesn't know is never read, called or
   written. */

enum { PUT_STREAMS, PUT_PACKET, ASKED };

/* The last member of a struct ends it: a gap behind it would be a part of the size that an older host states. */
#define ENDS_WITH(type, member) (offsetof(type, member) + sizeof(((type*)0)->member) == sizeof(type))

/* What an older host hands in, up to `member`; what lies behind it isn't its business. */
#define OLDER(type, variable, member)               \
    memset(&(variable), 0xff, sizeof(variable));    \
    memset(&(variable), 0, offsetof(type, member)); \
    (variable).size = offsetof(type, member)

static void on_streams(void* user, const kelp_packet_stream* const* streams, size_t count) {
    CHECK(count == 1 && streams[0]->size == sizeof(*streams[0]));
    CHECK(streams[0]->track == 7 && streams[0]->kind == KELP_TRACK_KIND_AUDIO);
    CHECK(strcmp(streams[0]->codec, "") == 0 && streams[0]->sample_rate == 0 && streams[0]->configuration == NULL);
    tally_add(user, PUT_STREAMS);
}

static void on_packet(void* user, const kelp_packet* packet) {
    CHECK(packet->size == sizeof(*packet) && packet->track == 7);
    CHECK(packet->data == NULL && packet->data_size == 0 && packet->packet == NULL);
    tally_add(user, PUT_PACKET);
}

static int64_t get_time_ms(void* user) {
    tally_add(user, ASKED);
    return 10 * (int64_t)tally_get(user, ASKED);
}

static void put_what_is_shorter(void) {
    tally told = TALLY_INITIALIZER;
    const kelp_packet_sink_calls calls = {
        .size = sizeof(calls), .user = &told, .on_streams = on_streams, .on_packet = on_packet};
    kelp_packet_sink* const sink = kelp_packet_sink_create(&calls);
    kelp_packet_stream stream;
    const kelp_packet_stream* const streams[] = {&stream};
    const kelp_packet_stream* const none[] = {NULL};
    kelp_packet packet;
    CHECK(sink);
    OLDER(kelp_packet_stream, stream, codec);
    stream.track = 7;
    stream.kind = KELP_TRACK_KIND_AUDIO;
    OLDER(kelp_packet, packet, data);
    packet.track = 7;
    CHECK(kelp_packet_sink_put_streams(sink, streams, 1) == 1 && tally_get(&told, PUT_STREAMS) == 1);
    CHECK(kelp_packet_sink_put_packet(sink, &packet) == 1 && tally_get(&told, PUT_PACKET) == 1);
    CHECK(kelp_packet_sink_put_streams(sink, none, 1) == 0 && kelp_packet_sink_put_streams(sink, NULL, 1) == 0);
    stream.kind = packet.kind = KELP_TRACK_KIND_OTHER + 1;
    CHECK(kelp_packet_sink_put_streams(sink, streams, 1) == 0 && strstr(kelp_last_error(), "kind"));
    CHECK(kelp_packet_sink_put_packet(sink, &packet) == 0 && strstr(kelp_packet_sink_last_error(sink), "kind"));
    stream.kind = packet.kind = -1;
    CHECK(kelp_packet_sink_put_streams(sink, streams, 1) == 0 && kelp_packet_sink_put_packet(sink, &packet) == 0);
    packet.kind = KELP_TRACK_KIND_VIDEO;
    packet.size = 0;
    CHECK(kelp_packet_sink_put_packet(sink, &packet) == 0 && kelp_packet_sink_put_packet(sink, NULL) == 0);
    kelp_packet_sink_destroy(sink);
}

static void fill_what_is_shorter(kelp_player* player) {
    kelp_statistics statistics;
    struct {
        kelp_statistics known;
        char later[32];
    } longer;
    OLDER(kelp_statistics, statistics, video_codec);
    CHECK(kelp_player_get_statistics(player, &statistics) == 1);
    CHECK(statistics.size == offsetof(kelp_statistics, video_codec) && statistics.restarts == 0);
    CHECK(statistics.video_codec[0] == (char)0xff && statistics.audio_ahead_of_master_ms == -1);
    memset(&longer, 0xff, sizeof(longer));
    longer.known.size = sizeof(longer);
    CHECK(kelp_player_get_statistics(player, &longer.known) == 1 && longer.known.size == sizeof(longer));
    CHECK(longer.known.restarts == 0 && longer.later[0] == 0 && longer.later[31] == 0);
}

static void sizes_are_needed(void) {
    const kelp_frame_sink_calls frames = {0};
    const kelp_packet_sink_calls packets = {0};
    const kelp_subtitle_sink_calls subtitles = {0};
    const kelp_recorder_events recorder = {0};
    const kelp_clock_calls clock = {.get_time_ms = get_time_ms};
    CHECK(kelp_frame_sink_create(&frames) == NULL && strstr(kelp_last_error(), "size"));
    CHECK(kelp_packet_sink_create(&packets) == NULL && kelp_subtitle_sink_create(&subtitles) == NULL);
    CHECK(kelp_recorder_create(&recorder) == NULL && kelp_clock_create_own(&clock) == NULL);
}

void sizes_test(void) {
    tally told = TALLY_INITIALIZER;
    struct {
        kelp_frame_sink_calls known;
        char later[32];
    } frames;
    kelp_packet_sink_calls packets;
    kelp_subtitle_sink_calls subtitles;
    kelp_recorder_events events;
    kelp_recorder_limits limits;
    kelp_clock_calls calls;
    kelp_muxer_video video;
    kelp_frame_sink* frame_sink;
    kelp_packet_sink* packet_sink;
    kelp_subtitle_sink* subtitle_sink;
    kelp_recorder* recorder;
    kelp_muxer* const muxer = kelp_muxer_create();
    kelp_clock* clock;
    playback it;
    CHECK(ENDS_WITH(kelp_player_events, on_stall_ended) && ENDS_WITH(kelp_frame, line_size));
    CHECK(ENDS_WITH(kelp_frame_sink_calls, on_frame) && ENDS_WITH(kelp_track, frame_rate));
    CHECK(ENDS_WITH(kelp_statistics, audio_ahead_of_master_ms) && ENDS_WITH(kelp_packet_stream, parameters));
    CHECK(ENDS_WITH(kelp_packet, packet) && ENDS_WITH(kelp_packet_sink_calls, on_end));
    CHECK(ENDS_WITH(kelp_subtitle_line, styled) && ENDS_WITH(kelp_subtitle_picture, pixels));
    CHECK(ENDS_WITH(kelp_subtitles, picture_count) && ENDS_WITH(kelp_subtitle_sink_calls, get_picture_size));
    CHECK(ENDS_WITH(kelp_recorder_events, on_failed) && ENDS_WITH(kelp_recorder_limits, waiting_bytes));
    CHECK(ENDS_WITH(kelp_clock_calls, is_force_sync) && ENDS_WITH(kelp_muxer_video, parameters));
    sizes_are_needed();
    put_what_is_shorter();

    /* A later host's sink, and an older one's of the other kinds, in one playback. */
    memset(&frames, 0xff, sizeof(frames));
    memset(&frames.known, 0, sizeof(frames.known));
    frames.known.size = sizeof(frames);
    CHECK(frame_sink = kelp_frame_sink_create(&frames.known));
    OLDER(kelp_packet_sink_calls, packets, on_streams);
    CHECK(packet_sink = kelp_packet_sink_create(&packets));
    OLDER(kelp_subtitle_sink_calls, subtitles, on_subtitles);
    CHECK(subtitle_sink = kelp_subtitle_sink_create(&subtitles));
    OLDER(kelp_clock_calls, calls, get_no_sync_threshold_ms);
    calls.user = &told;
    calls.get_time_ms = get_time_ms;
    CHECK(clock = kelp_clock_create_own(&calls));
    playback_open(&it);
    CHECK(kelp_player_add_frame_sink(it.player, frame_sink) == 1);
    CHECK(kelp_player_set_packet_sink(it.player, packet_sink) == 1);
    CHECK(kelp_player_set_subtitle_sink(it.player, subtitle_sink) == 1);
    CHECK(kelp_player_set_clock(it.player, clock) == 1);
    playback_begin(&it, path_in(media_folder, "short.mp4"));
    tally_wait(&it.told, COMPLETED, 1);
    CHECK(tally_get(&told, ASKED) > 0);
    fill_what_is_shorter(it.player);

    /* Nothing is told of a file that can't be made, nor is there a limit. */
    OLDER(kelp_recorder_events, events, on_file_begun);
    CHECK(recorder = kelp_recorder_create(&events));
    OLDER(kelp_recorder_limits, limits, file_ms);
    CHECK(kelp_recorder_start(recorder, "/missing/folder/recorded.mp4", &limits) == 1);
    CHECK(kelp_recorder_stop(recorder) == 1);
    OLDER(kelp_muxer_video, video, parameters);
    video.codec = KELP_VIDEO_CODEC_OTHER;
    video.width = video.height = 16;
    CHECK(kelp_muxer_open(muxer, path_in(scratch_folder, "none.mp4"), &video, 90000) == 0);
    unlink(path_in(scratch_folder, "none.mp4"));

    playback_close(&it);
    kelp_muxer_destroy(muxer);
    kelp_recorder_destroy(recorder);
    kelp_frame_sink_destroy(frame_sink);
    kelp_packet_sink_destroy(packet_sink);
    kelp_subtitle_sink_destroy(subtitle_sink);
    kelp_clock_destroy(clock);
}
