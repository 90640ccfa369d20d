#include "check.h"

#include <arpa/inet.h>
#include <errno.h>
#include <sys/socket.h>
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

int is_utf8(const char* text) {
    const unsigned char* at = (const unsigned char*)text;
    while (*at) {
        int more = *at < 0x80 ? 0 : *at >= 0xC2 && *at < 0xE0 ? 1 : (*at & 0xF0) == 0xE0 ? 2 : *at >= 0xF0 ? 3 : -1;
        if (more < 0) {
            return 0;
        }
        /* An overlong form, half of a pair, or behind the last character. */
        if ((*at == 0xE0 && at[1] < 0xA0) || (*at == 0xED && at[1] >= 0xA0) || (*at == 0xF0 && at[1] < 0x90) ||
            (*at == 0xF4 && at[1] >= 0x90) || *at > 0xF4) {
            return 0;
        }
        for (++at; more > 0; --more, ++at) {
            if ((*at & 0xC0) != 0x80) {
                return 0;
            }
        }
    }
    return 1;
}

int bound_socket(int type, uint32_t address, int shared, uint16_t* port) {
    struct sockaddr_in bound = {.sin_family = AF_INET, .sin_addr = {.s_addr = htonl(address)}};
    socklen_t length = sizeof(bound);
    const int made = socket(AF_INET, type, 0);
    CHECK(made >= 0);
    CHECK(setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof(shared)) == 0);
    CHECK(bind(made, (const struct sockaddr*)&bound, length) == 0);
    CHECK(getsockname(made, (struct sockaddr*)&bound, &length) == 0);
    *port = ntohs(bound.sin_port);
    return made;
}

const char* path_in(const char* folder, const char* name) {
    static char buffers[4][1024];
    static unsigned int used;
    char* const path = buffers[used++ % 4];
    snprintf(path, sizeof(buffers[0]), "%s/%s", folder, name);
    return path;
}
