/* A player that plays into a frame sink and counts what it is told. */
#ifndef KELP_TESTS_C_PLAYBACK_H
#define KELP_TESTS_C_PLAYBACK_H

#include <kelp_player/kelp_player_c.h>

#include "check.h"

enum { SIZE, PREPARED, STARTED, FAILED, FIRST_VIDEO, FIRST_AUDIO, COMPLETED, DURATION, SINK_SIZE, FRAME };

typedef struct playback {
    tally told;
    kelp_player* player;
    kelp_frame_sink* sink;
    int failure;         /* as told last */
    kelp_frame frame;    /* the last one; what it points at is gone */
    int sum_of_last_row; /* of its luma, so that every byte was read */
} playback;

/* Makes the player and its sink. */
void playback_open(playback* opened);
/* Prepares a file and starts it when it is ready. */
void playback_begin(playback* opened, const char* path);
/* Stops and ends both. */
void playback_close(playback* opened);

#endif
