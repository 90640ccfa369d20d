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

void udp_test(void) {
    tally told = TALLY_INITIALIZER;
    uint16_t port;
    const int holder = bound_socket(SOCK_DGRAM, INADDR_ANY, 1, &port);
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

    kelp_udp_receiver_destroy(kelp_udp_receiver_create(on_data, NULL));
    kelp_udp_receiver_destroy(NULL);
    kelp_udp_sender_destroy(NULL);
    CHECK(kelp_udp_receiver_start(NULL, 1) == 0 && kelp_udp_receiver_stop(NULL) == 0);
    CHECK(kelp_udp_receiver_last_error(NULL) && kelp_udp_sender_last_error(NULL));
    CHECK(kelp_udp_sender_start(NULL, "127.0.0.1", 1) == 0 && kelp_udp_sender_stop(NULL) == 0);
    CHECK(kelp_udp_sender_send(NULL, NULL, 0) == -1);
}

/* A port that somebody holds for himself. */
void udp_failure_test(void) {
    uint16_t port;
    const int holder = bound_socket(SOCK_DGRAM, INADDR_ANY, 0, &port);
    kelp_udp_receiver* const receiver = kelp_udp_receiver_create(NULL, NULL);
    CHECK(receiver);
    CHECK(kelp_udp_receiver_start(receiver, port) == 0);
    CHECK(strstr(kelp_udp_receiver_last_error(receiver), "the port can't be had"));
    kelp_udp_receiver_destroy(receiver);
    close(holder);
}
