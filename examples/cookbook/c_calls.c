// The code of docs/c.md: c_calls FILE RECORDING SNAPSHOT
#include <kelp_player/kelp_player_c.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

// [state]
// What the callbacks tell the main thread.
struct state {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    int ended;
    int64_t last_pts_ms;
    int pictures;
    double brightness;
};

static void on_prepared(void* user, kelp_player* player, int has_video, int has_audio) {
    printf("video: %s, sound: %s\n", has_video ? "yes" : "no", has_audio ? "yes" : "no");
    kelp_player_start(player);
}

static void end(struct state* state) {
    pthread_mutex_lock(&state->mutex);
    state->ended = 1;
    pthread_cond_signal(&state->changed);
    pthread_mutex_unlock(&state->mutex);
}

static void on_completed(void* user, kelp_player* player) {
    end(user);
}

static void on_failed(void* user, kelp_player* player, int failure) {
    fprintf(stderr, "%s\n", kelp_player_last_error(player));
    end(user);
}
// [/state]

// [frame]
// The mean brightness of each new picture; a repaint brings the last one again.
static void on_frame(void* user, const kelp_frame* frame) {
    struct state* state = user;
    if (frame->pix_format != KELP_PIX_FMT_YUV420P || frame->pts_ms == state->last_pts_ms) {
        return;
    }
    uint64_t sum = 0;
    for (int y = 0; y < frame->height; ++y) {
        const uint8_t* row = frame->data[0] + (ptrdiff_t)y * frame->line_size[0];
        for (int x = 0; x < frame->width; ++x) {
            sum += row[x];
        }
    }
    state->last_pts_ms = frame->pts_ms;
    state->brightness = (double)sum / ((double)frame->width * frame->height);
    ++state->pictures;
}
// [/frame]

// [tracks]
static void print_tracks(kelp_player* player) {
    kelp_tracks* tracks = kelp_player_get_tracks(player);
    for (size_t i = 0; i < kelp_tracks_count(tracks); ++i) {
        kelp_track track = {.size = sizeof(track)};
        kelp_tracks_get(tracks, i, &track);
        printf("%d: %s %s%s\n", track.number, track.codec, track.language, track.is_played ? ", played" : "");
    }
    kelp_tracks_free(tracks);
}
// [/tracks]

// [select]
// Shows the first subtitles that the film has.
static void on_started(void* user, kelp_player* player) {
    kelp_tracks* tracks = kelp_player_get_tracks(player);
    kelp_track track = {.size = sizeof(track)};
    for (size_t i = 0; kelp_tracks_get(tracks, i, &track); ++i) {
        if (track.kind == KELP_TRACK_KIND_SUBTITLE && track.is_playable) {
            kelp_player_select_track(player, KELP_TRACK_KIND_SUBTITLE, track.number);
            break;
        }
    }
    kelp_tracks_free(tracks);
}
// [/select]

// [subtitles]
// All that is to be read now: no line where the last one has gone.
static void on_subtitles(void* user, const kelp_subtitles* subtitles) {
    for (size_t i = 0; i < subtitles->line_count; ++i) {
        printf("%lld ms: %s\n", (long long)subtitles->time_ms, subtitles->lines[i]->text);
    }
}
// [/subtitles]

// [devices]
static void print_devices(void) {
    kelp_audio_devices* devices = kelp_get_audio_devices();
    for (size_t i = 0; i < kelp_audio_devices_count(devices); ++i) {
        printf("%s\n", kelp_audio_devices_name(devices, i));
    }
    kelp_audio_devices_free(devices);
}
// [/devices]

// [timer]
static void print_position(void* user) {
    kelp_player* player = user;
    kelp_statistics statistics = {.size = sizeof(statistics)};
    kelp_player_get_statistics(player, &statistics);
    printf("%d ms: %lld pictures shown, %lld late, %d packets wait\n", kelp_player_get_current_time(player),
           (long long)statistics.video_shown, (long long)statistics.video_late, statistics.video_queue_count);
}
// [/timer]

// [recorded]
static void on_file_ended(void* user, const char* path, int64_t duration_ms) {
    printf("%s: %.1f s\n", path, (double)duration_ms / 1000);
}

static void on_recording_failed(void* user, const char* path, const char* reason) {
    fprintf(stderr, "%s: %s\n", path, reason);
}
// [/recorded]

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: c_calls FILE RECORDING SNAPSHOT\n");
        return 2;
    }
    struct state state = {.mutex = PTHREAD_MUTEX_INITIALIZER, .changed = PTHREAD_COND_INITIALIZER, .last_pts_ms = -1};
    const kelp_player_events events = {.size = sizeof(events),
                                       .user = &state,
                                       .on_prepared = on_prepared,
                                       .on_started = on_started,
                                       .on_failed = on_failed,
                                       .on_completed = on_completed};
    kelp_player* player = kelp_player_create(&events);
    if (!player) {
        fprintf(stderr, "%s\n", kelp_last_error());
        return 1;
    }
    kelp_player_set_option(player, "preset", "recommended");
    kelp_player_set_option(player, "log_level", "error");
    print_devices();

    // [sink]
    const kelp_frame_sink_calls calls = {.size = sizeof(calls), .user = &state, .on_frame = on_frame};
    kelp_frame_sink* sink = kelp_frame_sink_create(&calls);
    kelp_player_add_frame_sink(player, sink);
    // [/sink]

    // [subtitle_sink]
    const kelp_subtitle_sink_calls subtitle_calls = {.size = sizeof(subtitle_calls), .on_subtitles = on_subtitles};
    kelp_subtitle_sink* subtitles = kelp_subtitle_sink_create(&subtitle_calls);
    kelp_player_set_subtitle_sink(player, subtitles);
    // [/subtitle_sink]

    // [recorder]
    const kelp_recorder_events told = {
        .size = sizeof(told), .on_file_ended = on_file_ended, .on_failed = on_recording_failed};
    const kelp_recorder_limits limits = {.size = sizeof(limits), .file_ms = 600000};  // then the next file
    kelp_recorder* recorder = kelp_recorder_create(&told);
    if (!kelp_recorder_start(recorder, argv[2], &limits)) {
        fprintf(stderr, "%s\n", kelp_recorder_last_error(recorder));
    }
    kelp_player_set_packet_sink(player, kelp_recorder_get_sink(recorder));
    // [/recorder]

    kelp_player_set_data_source(player, argv[1], 0);
    kelp_player_prepare_async(player);
    // [add]
    kelp_player_add_timer(player, 200, /*one_shot=*/0, print_position, player, /*release=*/NULL);
    // [/add]

    pthread_mutex_lock(&state.mutex);
    while (!state.ended) {
        pthread_cond_wait(&state.changed, &state.mutex);
    }
    pthread_mutex_unlock(&state.mutex);
    print_tracks(player);

    kelp_player_set_packet_sink(player, NULL);
    // [step]
    kelp_player_seek(player, 0);
    kelp_player_pause(player);
    if (!kelp_player_step_frame(player, 3)) {  // -3 for so many back
        fprintf(stderr, "%s\n", kelp_player_last_error(player));
    }
    // [/step]
    // [snapshot]
    if (!kelp_player_take_snapshot(player, argv[3])) {
        fprintf(stderr, "%s\n", kelp_player_last_error(player));
    }
    // [/snapshot]

    // [end]
    kelp_recorder_stop(recorder);
    kelp_player_destroy(player);  // before what it uses
    kelp_frame_sink_destroy(sink);
    kelp_subtitle_sink_destroy(subtitles);
    kelp_recorder_destroy(recorder);
    // [/end]
    printf("%d pictures, the last one of brightness %.1f\n", state.pictures, state.brightness);
    return 0;
}
