#include <arpa/inet.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "playback.h"
#include "tests.h"

enum { STALLED, BUFFERING, STALL_ENDED, PLAYED, SERVED };

/* A server that holds back the end of a file until the playback stands. */
typedef struct slow_server {
    tally told;
    int listener;
    kelp_player* player;
} slow_server;

static void send_all(int connection, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t sent = send(connection, data, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return;
        }
        data += sent;
        size -= (size_t)sent;
    }
}

static void* serve(void* user) {
    slow_server* const server = user;
    char request[2048], head[256];
    static char content[1 << 22];
    const int connection = accept(server->listener, NULL, NULL);
    FILE* const file = fopen(path_in(media_folder, "hevc.ts"), "rb");
    size_t size;
    CHECK(file && connection >= 0);
    size = fread(content, 1, sizeof(content), file);
    fclose(file);
    CHECK(recv(connection, request, sizeof(request), 0) > 0);
    snprintf(head, sizeof(head), "HTTP/1.0 200 OK\r\nContent-Type: video/mp2t\r\nContent-Length: %zu\r\n\r\n", size);
    send_all(connection, head, strlen(head));
    send_all(connection, content, size / 2);
    tally_wait(&server->told, STALLED, 1);
    send_all(connection, content + size / 2, size - size / 2);
    close(connection);
    tally_add(&server->told, SERVED);
    return NULL;
}

static void on_prepared(void* user, kelp_player* player, int has_video, int has_audio) {
    (void)user;
    CHECK(has_video == 1 && has_audio == 1);
    CHECK(kelp_player_start(player) == 1);
}

static void on_completed(void* user, kelp_player* player) {
    (void)player;
    tally_add(&((slow_server*)user)->told, PLAYED);
}

static void on_stalled(void* user, kelp_player* player) {
    CHECK(player == ((slow_server*)user)->player);
    tally_add(&((slow_server*)user)->told, STALLED);
}

static void on_buffering(void* user, kelp_player* player, int waiting_ms, int percent) {
    (void)player;
    CHECK(waiting_ms >= 0 && percent >= 0 && percent <= 100);
    tally_add(&((slow_server*)user)->told, BUFFERING);
}

static void on_stall_ended(void* user, kelp_player* player) {
    (void)player;
    tally_add(&((slow_server*)user)->told, STALL_ENDED);
}

void stall_test(void) {
    slow_server server = {TALLY_INITIALIZER, -1, NULL};
    uint16_t port;
    pthread_t thread;
    char url[64];
    server.listener = bound_socket(SOCK_STREAM, INADDR_LOOPBACK, 0, &port);
    CHECK(listen(server.listener, 4) == 0);
    CHECK(pthread_create(&thread, NULL, serve, &server) == 0);

    const kelp_player_events events = {.size = sizeof(events),
                                       .user = &server,
                                       .on_prepared = on_prepared,
                                       .on_completed = on_completed,
                                       .on_stalled = on_stalled,
                                       .on_buffering = on_buffering,
                                       .on_stall_ended = on_stall_ended};
    CHECK(server.player = kelp_player_create(&events));
    CHECK(kelp_player_set_option(server.player, "log_level", "none") == 1);
    CHECK(kelp_player_set_option(server.player, "preset", "recommended") == 1);
    snprintf(url, sizeof(url), "http://127.0.0.1:%d/film.ts", port);
    CHECK(kelp_player_set_data_source(server.player, url, 0) == 1);
    CHECK(kelp_player_prepare_async(server.player) == 1);
    tally_wait(&server.told, PLAYED, 1);
    CHECK(tally_get(&server.told, STALLED) >= 1);
    CHECK(tally_get(&server.told, STALL_ENDED) == tally_get(&server.told, STALLED));
    kelp_player_destroy(server.player);
    CHECK(pthread_join(thread, NULL) == 0);
    close(server.listener);
}
