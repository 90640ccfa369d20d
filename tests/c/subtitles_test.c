#include <string.h>
#include <unistd.h>

#include "playback.h"
#include "tests.h"

enum { LINES, PICTURES, ASKED_SIZE };

static void on_subtitles(void* user, const kelp_subtitles* subtitles) {
    size_t i;
    CHECK(subtitles->size == sizeof(*subtitles) && subtitles->script);
    for (i = 0; i < subtitles->line_count; ++i) {
        const kelp_subtitle_line* const line = subtitles->lines[i];
        CHECK(line->size == sizeof(*line) && line->end_ms > line->start_ms);
        CHECK(strcmp(line->text, "Hello") == 0 && strstr(line->styled, "Hello"));
        tally_add(user, LINES);
    }
    for (i = 0; i < subtitles->picture_count; ++i) {
        const kelp_subtitle_picture* const picture = subtitles->pictures[i];
        CHECK(picture->size == sizeof(*picture) && picture->pixels);
        CHECK(picture->x >= 0 && picture->x + picture->width <= 320);
        CHECK(picture->y >= 0 && picture->y + picture->height <= 180);
        CHECK(picture->pixel_width > 0 && picture->pixel_height > 0);
        tally_add(user, PICTURES);
    }
}

static void get_picture_size(void* user, int* width, int* height) {
    CHECK(*width == 0 && *height == 0);
    *width = 320;
    *height = 180;
    tally_add(user, ASKED_SIZE);
}

/* A film with a line of text; what it looks like is the matter of other tests. */
void subtitles_test(void) {
    tally told = TALLY_INITIALIZER;
    const char* const text = path_in(scratch_folder, "film.srt");
    const char* const path = path_in(scratch_folder, "film.mkv");
    kelp_subtitle_sink_calls calls = {
        .user = &told, .on_subtitles = on_subtitles, .get_picture_size = get_picture_size};
    kelp_subtitle_sink* sink;
    playback it;
    char command[4096];
    FILE* file;
    CHECK(file = fopen(text, "w"));
    fputs("1\n00:00:00,000 --> 00:00:02,500\nHello\n", file);
    fclose(file);
    snprintf(command, sizeof(command), "ffmpeg -v error -y -i %s -i %s -map 0 -map 1 -c copy -c:s srt %s",
             path_in(media_folder, "small.mp4"), text, path);
    CHECK(system(command) == 0);

    CHECK(kelp_subtitle_sink_create(NULL) == NULL && kelp_subtitle_sink_create(&calls) == NULL);
    calls.size = sizeof(calls);
    CHECK(sink = kelp_subtitle_sink_create(&calls));
    playback_open(&it);
    CHECK(kelp_player_set_option(it.player, "subtitle_track", "2") == 1);
    CHECK(kelp_player_set_subtitle_sink(it.player, sink) == 1 && kelp_player_set_subtitle_sink(NULL, sink) == 0);
    playback_begin(&it, path);
    tally_wait(&told, LINES, 1);
    tally_wait(&told, ASKED_SIZE, 1);
    CHECK(kelp_player_set_subtitle_sink(it.player, NULL) == 1);
    playback_close(&it);
    kelp_subtitle_sink_destroy(sink);
    kelp_subtitle_sink_destroy(NULL);
    CHECK(unlink(text) == 0 && unlink(path) == 0);
}
