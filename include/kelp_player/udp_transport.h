#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "kelp_player/export.h"

namespace kelp {

class Rest;

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
#endif

// Takes the datagrams of a UdpReceiver: the host implements it and owns the object, which must live until the receiver
// was stopped.
class UdpReceiverObserver {
public:
    // One datagram of `size` bytes, 0 to 2000. `data` is valid during the call only. Called on the receiver's thread,
    // one datagram at a time; the next ones wait in the system's buffer meanwhile. Must not call `stopReceiver`.
    virtual void onUdpData(const unsigned char* data, int size) = 0;
};

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

// Receives the datagrams of one IPv4 port, on a thread of its own, and hands them to an observer.
//
// Made by `create`; then `init`, `startReceiver`, `stopReceiver`, possibly again from `startReceiver`, and `destroy`.
// All of these come from one owner thread.
class KELP_PLAYER_API UdpReceiver {
public:
    // Makes a receiver, which the caller owns; null if there is no memory.
    static UdpReceiver* create();

    // Ends a receiver. It must have been stopped: destroying one that runs ends the process. Null is allowed.
    static void destroy(UdpReceiver* receiver);

    // Sets who gets the datagrams, before `startReceiver`; with null they are dropped. Always true.
    bool init(UdpReceiverObserver* observer);

    // Opens `port` on all interfaces and starts the thread. Port 0 lets the system choose, but nothing tells which one.
    // True also if the receiver runs already. False if there is no socket or the port can't be had; it may be tried
    // again. The reason for the latter stands on standard error, not in the log: "bind: Address already in use" asks
    // for another port, "bind: Permission denied" for one from 1024 on. A line about the buffer goes to standard
    // output. `std::system_error` if the process has too many threads.
    //
    // A datagram of more than 2000 bytes is lost: nothing of it arrives, and reading rests for 10 ms as if there were
    // none. An idle receiver looks for new ones every 10 ms; what comes meanwhile waits in the system's buffer of up to
    // 25 MiB (on Linux no more than net.core.rmem_max allows), and is lost without a notice when that is full.
    //
    // Receivers share a port with each other, and with whoever else allows that (SO_REUSEADDR); on Linux the one that
    // started last gets the datagrams. A port that somebody holds for himself can't be had.
    bool startReceiver(unsigned short port);

    // Closes the port and waits for the thread, and so for a call of the observer that is running. Does nothing if the
    // receiver isn't started.
    void stopReceiver();

private:
    UdpReceiver() = default;
    UdpReceiver(const UdpReceiver&) = delete;
    UdpReceiver& operator=(const UdpReceiver&) = delete;
    virtual ~UdpReceiver();

    // The thread's body.
    void receiveRun();

    UdpReceiverObserver* observer_ = nullptr;  // not owned
    std::atomic<int> socket_{-1};              // -1 for none; read by the thread
    std::shared_ptr<Rest> rest_;               // the thread's, between two looks
    std::shared_ptr<std::thread> thread_;      // runs receiveRun
    std::atomic<bool> started_{false};         // between startReceiver and stopReceiver
    std::atomic<bool> stopRequested_{false};   // tells the thread to end
};

// Sends datagrams to one IPv4 destination.
//
// `startSender`, `send` at will, `stopSender`: there is no thread and no lock, so one call at a time.
class KELP_PLAYER_API UdpSender {
public:
    UdpSender() = default;
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;
    // Leaves the socket open: call `stopSender` before.
    virtual ~UdpSender() = default;

    // Opens a socket for sending to `address`, an IPv4 address as dotted text (names are not looked up), and `port`.
    // False if there is no socket; the address is looked at by `send` only. Call `stopSender` before a second start:
    // the first socket would stay open for good.
    bool startSender(std::string address, unsigned short port);

    // Sends the `size` bytes at `data` as one datagram, waiting for room in the system's buffer if need be. The number
    // of bytes sent, or -1 on failure, also before `startSender` and after `stopSender`, and for an address that can't
    // be read; nothing is logged, and `errno` tells the system's reason right after the call. 65507 bytes are the most
    // that fit; a UdpReceiver takes 2000. Nothing tells whether a datagram arrives: one to a port that nobody has open
    // is sent all the same. Should a system report that it was refused, it makes a later call fail, and the one after
    // that works.
    int send(const unsigned char* data, int size);

    // Closes the socket; does nothing without one.
    void stopSender();

private:
    int socket_ = -1;          // -1 for none
    std::string address_;      // destination, dotted text
    unsigned short port_ = 0;  // destination, host order
};

}  // namespace kelp
