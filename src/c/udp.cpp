#include <cerrno>
#include <new>
#include <system_error>

#include "c/boundary.h"
#include "kelp_player/udp_transport.h"

using namespace kelp::c;

// A receiver, and the host's callback.
struct kelp_udp_receiver final : private kelp::UdpReceiverObserver {
    kelp_udp_receiver(void (*call)(void* user, const uint8_t* data, int data_size), void* user)
        : receiver(kelp::UdpReceiver::create()), call_(call), user_(user) {
        if (!receiver) {
            throw std::bad_alloc();
        }
        receiver->init(this);
    }
    kelp_udp_receiver(const kelp_udp_receiver&) = delete;
    kelp_udp_receiver& operator=(const kelp_udp_receiver&) = delete;
    virtual ~kelp_udp_receiver() {
        receiver->stopReceiver();
        kelp::UdpReceiver::destroy(receiver);
    }

    mutable LastError error;
    kelp::UdpReceiver* const receiver;

private:
    void onUdpData(const unsigned char* data, int size) override {
        if (call_) {
            call_(user_, data, size);
        }
    }

    void (*const call_)(void* user, const uint8_t* data, int data_size);
    void* const user_;
};

// A sender.
struct kelp_udp_sender {
    kelp_udp_sender() = default;
    kelp_udp_sender(const kelp_udp_sender&) = delete;
    kelp_udp_sender& operator=(const kelp_udp_sender&) = delete;
    ~kelp_udp_sender() { sender.stopSender(); }

    kelp::UdpSender sender;
    mutable LastError error;
};

kelp_udp_receiver* kelp_udp_receiver_create(void (*call)(void* user, const uint8_t* data, int data_size), void* user) {
    return made<kelp_udp_receiver>(__func__, [&] { return std::make_unique<kelp_udp_receiver>(call, user); });
}

void kelp_udp_receiver_destroy(kelp_udp_receiver* receiver) {
    delete receiver;
}

const char* kelp_udp_receiver_last_error(const kelp_udp_receiver* receiver) {
    return errorText(receiver);
}

int kelp_udp_receiver_start(kelp_udp_receiver* receiver, uint16_t port) {
    return carryOut(__func__, receiver, [&](kelp_udp_receiver& handle) {
        require(handle.receiver->startReceiver(port), "the port can't be had");
    });
}

int kelp_udp_receiver_stop(kelp_udp_receiver* receiver) {
    return carryOut(__func__, receiver, [](kelp_udp_receiver& handle) { handle.receiver->stopReceiver(); });
}

kelp_udp_sender* kelp_udp_sender_create(void) {
    return made<kelp_udp_sender>(__func__, [] { return std::make_unique<kelp_udp_sender>(); });
}

void kelp_udp_sender_destroy(kelp_udp_sender* sender) {
    delete sender;
}

const char* kelp_udp_sender_last_error(const kelp_udp_sender* sender) {
    return errorText(sender);
}

int kelp_udp_sender_start(kelp_udp_sender* sender, const char* address, uint16_t port) {
    return carryOut(__func__, sender, [&](kelp_udp_sender& handle) {
        const char* const destination = needed(address);
        handle.sender.stopSender();
        require(handle.sender.startSender(destination, port), "there is no socket to be had");
    });
}

int kelp_udp_sender_send(kelp_udp_sender* sender, const uint8_t* data, int data_size) {
    return valueOf(__func__, sender, -1, [&](kelp_udp_sender& handle) {
        require(data, "the data is null");
        const int sent = handle.sender.send(data, data_size);
        if (sent < 0) {
            throw std::runtime_error(std::generic_category().message(errno));
        }
        return sent;
    });
}

int kelp_udp_sender_stop(kelp_udp_sender* sender) {
    return carryOut(__func__, sender, [](kelp_udp_sender& handle) { handle.sender.stopSender(); });
}
