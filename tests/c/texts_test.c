#include <string.h>
#include <unistd.h>

#include "playback.h"
#include "tests.h"

/* A film, a path and subtitles from times before UTF-8: what comes out of the library is UTF-8 all the same. */

enum { LINES, LOGGED, FILES };

#define MARK "\xEF\xBF\xBD"

static const char kScript[] =
    "[Script Info]\nTitle: caf\xE9\nScriptType: v4.00+\n\n[V4+ Styles]\nFormat: Name, Fontname, Fontsize\n"
    "Style: Default,DejaVu Sans,20\n\n[Events]\n"
    "Format: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n"
    "Dialogue: 0,0:00:00.00,0:00:02.50,Default,,0,0,0,,Gr\xFC\xDF\n";

static void on_subtitles(void* user, const kelp_subtitles* subtitles) {
    CHECK(is_utf8(subtitles->script));
    if (subtitles->line_count > 0) {
        CHECK(strstr(subtitles->script, "Title: caf" MARK));
        CHECK(strcmp(subtitles->lines[0]->text, "Gr\xC3\xBC\xC3\x9F") == 0); /* taken for Latin-1 */
        CHECK(is_utf8(subtitles->lines[0]->styled));
        tally_add(user, LINES);
    }
}

static void on_line(void* user, const char* line) {
    CHECK(is_utf8(line));
    /* A byte, half of a pair, and an overlong form: each byte by itself. */
    if (strstr(line, "missing" MARK MARK MARK MARK MARK MARK MARK ".mp4")) {
        tally_add(user, LOGGED);
    }
}

static void on_file(void* user, const char* path) {
    CHECK(strstr(path, "/recorded\xFF.mp4")); /* as the system has it */
    tally_add(user, FILES);
}

static void film_with_old_texts(tally* told, const char* path) {
    const kelp_subtitle_sink_calls calls = {.size = sizeof(calls), .user = told, .on_subtitles = on_subtitles};
    const kelp_recorder_events events = {.size = sizeof(events), .user = told, .on_file_begun = on_file};
    const char* const recorded = path_in(scratch_folder, "recorded\xFF.mp4");
    kelp_subtitle_sink* const sink = kelp_subtitle_sink_create(&calls);
    kelp_recorder* const recorder = kelp_recorder_create(&events);
    kelp_track track = {.size = sizeof(track)};
    kelp_tracks* tracks;
    playback it;
    CHECK(sink && recorder);
    CHECK(kelp_recorder_start(recorder, recorded, NULL) == 1);
    playback_open(&it);
    CHECK(kelp_player_set_option(it.player, "subtitle_track", "2") == 1);
    CHECK(kelp_player_set_subtitle_sink(it.player, sink) == 1);
    CHECK(kelp_player_set_packet_sink(it.player, kelp_recorder_get_sink(recorder)) == 1);
    playback_begin(&it, path);
    tally_wait(told, LINES, 1);
    CHECK(tracks = kelp_player_get_tracks(it.player));
    CHECK(kelp_tracks_get(tracks, 0, &track) == 1 && strcmp(track.title, "caf" MARK) == 0 && is_utf8(track.language));
    kelp_tracks_free(tracks);
    playback_close(&it);
    CHECK(kelp_recorder_stop(recorder) == 1 && tally_get(told, FILES) == 1);
    CHECK(unlink(recorded) == 0);
    kelp_recorder_destroy(recorder);
    kelp_subtitle_sink_destroy(sink);
}

void texts_test(void) {
    tally told = TALLY_INITIALIZER;
    const char* const text = path_in(scratch_folder, "film.ass");
    const char* const path = path_in(scratch_folder, "film\xFF.mkv");
    kelp_recorder* const recorder = kelp_recorder_create(NULL);
    playback it;
    char command[4096];
    FILE* file;
    CHECK(file = fopen(text, "w"));
    fputs(kScript, file);
    fclose(file);
    snprintf(command, sizeof(command),
             "ffmpeg -v error -y -i %s -i %s -map 0 -map 1 -c copy -metadata:s:v:0 title=caf\xE9 %s",
             path_in(media_folder, "small.mp4"), text, path);
    CHECK(system(command) == 0);
    film_with_old_texts(&told, path);
    CHECK(unlink(text) == 0 && unlink(path) == 0);

    playback_open(&it);
    CHECK(kelp_log_set_callback(on_line, &told, NULL) == 1);
    kelp_log_set_level(KELP_LOG_INFO);
    CHECK(kelp_recorder_start(recorder, "recorded\xFF.xyz", NULL) == 0);
    CHECK(strstr(kelp_last_error(), "recorded" MARK ".xyz") && is_utf8(kelp_recorder_last_error(recorder)));
    kelp_recorder_destroy(recorder);
    playback_begin(&it, path_in(media_folder, "missing\xFF\xED\xA0\x80\xE0\x80\x80.mp4"));
    tally_wait(&it.told, FAILED, 1);
    kelp_log_set_level(KELP_LOG_NONE);
    CHECK(kelp_log_set_callback(NULL, NULL, NULL) == 1);
    CHECK(tally_get(&told, LOGGED) > 0 && is_utf8(kelp_player_last_error(it.player)));
    playback_close(&it);
}
