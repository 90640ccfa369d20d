#include <arpa/inet.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "check.h"
#include "tests.h"

#include <kelp_player/kelp_player_c.h>

enum { DATAGRAM, OTHER };

static void on_data(void* user, const uint8_t* data, int data_size) {
    tally_add(user, data_size == 5 && memcmp(data, "hello", 5) == 0 ? DATAGRAM : OTHER);
}

/* A port that the system has just given, and holds for `holder`, whose address others may share. */
static uint16_t free_port(int* holder) {
    struct sockaddr_in address;
    socklen_t length = sizeof(address);
    const int on = 1;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    CHECK((*holder = socket(AF_INET, SOCK_DGRAM, 0)) >= 0);
    CHECK(setsockopt(*holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0);
    CHECK(bind(*holder, (const struct sockaddr*)&address, sizeof(address)) == 0);
    CHECK(getsockname(*holder, (struct sockaddr*)&address, &length) == 0);
    return ntohs(address.sin_port);
}

void udp_test(void) {
    tally told = TALLY_INITIALIZER;
    int holder;
    const uint16_t port = free_port(&holder);
    kelp_udp_receiver* const receiver = kelp_udp_receiver_create(on_data, &told);
    kelp_udp_sender* const sender = kelp_udp_sender_create();
    CHECK(receiver && sender);
    /* The one that started last gets the datagrams. */
    CHECK(kelp_udp_receiver_start(receiver, port) == 1 && kelp_udp_receiver_start(receiver, port) == 1);
    CHECK(kelp_udp_sender_send(sender, (const uint8_t*)"hello", 5) == -1);
    CHECK(strstr(kelp_udp_sender_last_error(sender), "kelp_udp_sender_send: "));
    CHECK(kelp_udp_sender_start(sender, NULL, port) == 0);
    CHECK(kelp_udp_sender_start(sender, "127.0.0.1", port) == 1);
    CHECK(kelp_udp_sender_start(sender, "127.0.0.1", port) == 1); /* ends the first */
    CHECK(kelp_udp_sender_send(sender, NULL, 5) == -1);
    CHECK(kelp_udp_sender_send(sender, (const uint8_t*)"hello", 5) == 5);
    tally_wait(&told, DATAGRAM, 1);
    CHECK(kelp_udp_sender_stop(sender) == 1 && kelp_udp_receiver_stop(receiver) == 1);
    CHECK(kelp_udp_receiver_start(receiver, port) == 1);
    kelp_udp_receiver_destroy(receiver); /* stops */
    kelp_udp_sender_destroy(sender);
    close(holder);

    kelp_udp_receiver_destroy(NULL);
    kelp_udp_sender_destroy(NULL);
    CHECK(kelp_udp_receiver_start(NULL, 1) == 0 && kelp_udp_receiver_stop(NULL) == 0);
    CHECK(kelp_udp_receiver_last_error(NULL) && kelp_udp_sender_last_error(NULL));
    CHECK(kelp_udp_sender_start(NULL, "127.0.0.1", 1) == 0 && kelp_udp_sender_stop(NULL) == 0);
    CHECK(kelp_udp_sender_send(NULL, NULL, 0) == -1);
}

/* A port that somebody holds for himself. */
void udp_failure_test(void) {
    struct sockaddr_in address;
    socklen_t length = sizeof(address);
    const int holder = socket(AF_INET, SOCK_DGRAM, 0);
    kelp_udp_receiver* const receiver = kelp_udp_receiver_create(NULL, NULL);
    CHECK(receiver && holder >= 0);
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    CHECK(bind(holder, (const struct sockaddr*)&address, sizeof(address)) == 0);
    CHECK(getsockname(holder, (struct sockaddr*)&address, &length) == 0);
    CHECK(kelp_udp_receiver_start(receiver, ntohs(address.sin_port)) == 0);
    CHECK(strstr(kelp_udp_receiver_last_error(receiver), "the port can't be had"));
    kelp_udp_receiver_destroy(receiver);
    close(holder);
}
