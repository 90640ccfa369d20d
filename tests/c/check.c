#include "check.h"

#include <errno.h>
#include <time.h>

void tally_add(tally* counted, int what) {
    pthread_mutex_lock(&counted->mutex);
    ++counted->counts[what];
    pthread_cond_broadcast(&counted->changed);
    pthread_mutex_unlock(&counted->mutex);
}

int tally_get(tally* counted, int what) {
    int count;
    pthread_mutex_lock(&counted->mutex);
    count = counted->counts[what];
    pthread_mutex_unlock(&counted->mutex);
    return count;
}

void tally_wait(tally* counted, int what, int count) {
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 60;
    pthread_mutex_lock(&counted->mutex);
    while (counted->counts[what] < count) {
        if (pthread_cond_timedwait(&counted->changed, &counted->mutex, &until) == ETIMEDOUT) {
            fprintf(stderr, "number %d came %d times within a minute, not %d times\n", what, counted->counts[what],
                    count);
            exit(1);
        }
    }
    pthread_mutex_unlock(&counted->mutex);
}

const char* path_in(const char* folder, const char* name) {
    static char buffers[4][1024];
    static unsigned int used;
    char* const path = buffers[used++ % 4];
    snprintf(path, sizeof(buffers[0]), "%s/%s", folder, name);
    return path;
}
