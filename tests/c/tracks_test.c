#include <string.h>

#include "playback.h"
#include "tests.h"

void tracks_test(void) {
    playback it;
    kelp_tracks* tracks;
    kelp_track track = {0};
    struct {
        kelp_track known;
        char later[32];
    } longer;
    struct {
        size_t size;
        int number;
        char beyond[sizeof(kelp_track)];
    } shorter;
    playback_open(&it);
    CHECK(tracks = kelp_player_get_tracks(it.player));
    CHECK(kelp_tracks_count(tracks) == 0);
    kelp_tracks_free(tracks);
    CHECK(kelp_player_select_track(it.player, KELP_TRACK_KIND_AUDIO, 1) == 0);

    playback_begin(&it, path_in(media_folder, "small.mp4"));
    tally_wait(&it.told, FIRST_AUDIO, 1);
    CHECK(kelp_player_select_track(it.player, KELP_TRACK_KIND_AUDIO, 1) == 1);
    CHECK(kelp_player_select_track(it.player, KELP_TRACK_KIND_AUDIO, 7) == 0);
    CHECK(kelp_player_select_track(it.player, KELP_TRACK_KIND_OTHER, 1) == 0);
    CHECK(kelp_player_select_track(it.player, 99, 1) == 0);
    CHECK(tracks = kelp_player_get_tracks(it.player));
    playback_close(&it); /* they stay */
    CHECK(kelp_tracks_count(tracks) == 2);
    CHECK(kelp_tracks_get(tracks, 0, &track) == 0); /* without a size */
    track.size = sizeof(track);
    CHECK(kelp_tracks_get(tracks, 0, &track) == 1);
    CHECK(track.number == 0 && track.kind == KELP_TRACK_KIND_VIDEO && strcmp(track.codec, "h264") == 0);
    CHECK(track.is_playable == 1 && track.is_played == 1 && track.is_attached_picture == 0 && track.is_default == 1);
    CHECK(track.width == 320 && track.height == 180 && track.frame_rate > 24.9 && track.frame_rate < 25.1);
    CHECK(strcmp(track.title, "") == 0 && track.language);
    CHECK(kelp_tracks_get(tracks, 1, &track) == 1);
    CHECK(track.kind == KELP_TRACK_KIND_AUDIO && track.sample_rate == 48000 && track.channels == 2);
    CHECK(kelp_tracks_get(tracks, 2, &track) == 0 && kelp_tracks_get(NULL, 0, &track) == 0);
    CHECK(strcmp(kelp_tracks_last_error(tracks), "kelp_tracks_get: there aren't so many tracks") == 0);
    CHECK(strcmp(kelp_tracks_last_error(NULL), "kelp_tracks_get: the handle is null") == 0);
    CHECK(kelp_tracks_get(tracks, 0, NULL) == 0 && strstr(kelp_tracks_last_error(tracks), "a struct is null"));

    /* A host that knows more than the library gets zeros, one that knows less nothing beyond. */
    memset(&longer, 0xff, sizeof(longer));
    longer.known.size = sizeof(longer);
    CHECK(kelp_tracks_get(tracks, 1, &longer.known) == 1);
    CHECK(longer.known.number == 1 && longer.known.size == sizeof(longer));
    CHECK(longer.later[0] == 0 && longer.later[31] == 0);
    memset(&shorter, 0x55, sizeof(shorter));
    shorter.size = offsetof(kelp_track, kind);
    CHECK(kelp_tracks_get(tracks, 1, (kelp_track*)(void*)&shorter) == 1);
    CHECK(shorter.number == 1 && shorter.beyond[0] == 0x55);

    kelp_tracks_free(tracks);
    kelp_tracks_free(NULL);
    CHECK(kelp_tracks_count(NULL) == 0 && kelp_player_get_tracks(NULL) == NULL);
    CHECK(kelp_player_select_track(NULL, KELP_TRACK_KIND_AUDIO, 1) == 0);
}

void statistics_test(void) {
    playback it;
    kelp_statistics statistics = {0};
    playback_open(&it);
    CHECK(kelp_player_get_statistics(it.player, &statistics) == 0);
    CHECK(kelp_player_get_statistics(it.player, NULL) == 0 && kelp_player_get_statistics(NULL, &statistics) == 0);
    statistics.size = sizeof(statistics);
    CHECK(kelp_player_get_statistics(it.player, &statistics) == 1 && statistics.video_track == -1);
    playback_begin(&it, path_in(media_folder, "short.mp4"));
    tally_wait(&it.told, COMPLETED, 1);
    CHECK(kelp_player_get_statistics(it.player, &statistics) == 1);
    CHECK(statistics.video_track == 0 && strcmp(statistics.video_codec, "h264") == 0);
    CHECK(strcmp(statistics.video_decoder, "h264") == 0 && statistics.video_is_hardware == 0);
    CHECK(statistics.video_packets == 13 && statistics.video_decoded == 13 && statistics.video_bytes > 0);
    CHECK(statistics.video_shown > 0 && statistics.video_width == 160 && statistics.video_height == 90);
    CHECK(statistics.audio_track == 1 && strcmp(statistics.audio_codec, "aac") == 0);
    CHECK(statistics.audio_sample_rate == 48000 && statistics.audio_channels == 2 && statistics.audio_decoded > 0);
    CHECK(statistics.restarts == 0 && statistics.last_failure == 0);
    playback_close(&it);
}
