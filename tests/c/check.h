/* A check that tells what it expected, and waits that give up at last. */
#ifndef KELP_TESTS_C_CHECK_H
#define KELP_TESTS_C_CHECK_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#define CHECK(condition)                                                             \
    do {                                                                             \
        if (!(condition)) {                                                          \
            fprintf(stderr, "%s:%d: expected %s\n", __FILE__, __LINE__, #condition); \
            exit(1);                                                                 \
        }                                                                            \
    } while (0)

/* Counts what callbacks tell, for a thread that waits for it. */
typedef struct tally {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    int counts[16];
} tally;

#define TALLY_INITIALIZER                                      \
    {                                                          \
        PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, { \
            0                                                  \
        }                                                      \
    }

void tally_add(tally* counted, int what);
int tally_get(tally* counted, int what);
/* Waits until `what` was counted `count` times; ends the test when that takes a minute. */
void tally_wait(tally* counted, int what, int count);

/* Whether a text is UTF-8 all through. */
int is_utf8(const char* text);

/* A socket of a type of sockets, and a port that the system has given it at an address of this machine. Others may
   share the port if `shared` isn't 0. */
int bound_socket(int type, uint32_t address, int shared, uint16_t* port);

/* The folder of the media files, and one of the test's own, without a slash at the end. */
extern const char* media_folder;
extern const char* scratch_folder;
/* FOLDER/NAME, in one of a few buffers that are used in turn. */
const char* path_in(const char* folder, const char* name);

#endif
