#pragma once

#include <string>

#include "e2e/child_process.h"
#include "e2e/udp_relay.h"

namespace kelp::test {

// A session of RTP packets that an SDP file describes: the ffmpeg command sends the picture and the sound of a file,
// again and again in real time, through a relay to ports of the loopback address. One thread uses it.
class RtpSession {
public:
    // Sends the file at `path`, which has one stream of each kind, from now on.
    explicit RtpSession(const std::string& path);
    ~RtpSession();

    // The SDP file, for the player to open.
    const std::string& sdpPath() const { return sdpPath_; }
    UdpRelay& relay() { return relay_; }

    void kill() { sender_.kill(); }
    // It ends in order, and says so by RTCP.
    void interrupt() { sender_.interrupt(); }
    void suspend() { sender_.suspend(); }
    void proceed() { sender_.proceed(); }

private:
    std::string folder_;
    std::string sdpPath_;
    UdpRelay relay_;
    ChildProcess sender_;
};

}  // namespace kelp::test
