#include "e2e/rtp_session.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace kelp::test {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void giveUp(const char* what) {
    std::fprintf(stderr, "rtp session: %s\n", what);
    std::abort();
}

// A UDP socket bound to `port` of every address, as the player binds it; -1 if the port is taken.
int bindPort(int port) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(socket);
        return -1;
    }
    return socket;
}

int portOf(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// An even port that is free together with the next one, for RTP and RTCP.
int freePortPair() {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int first = bindPort(0);
        const int port = portOf(first);
        const int second = port % 2 == 0 ? bindPort(port + 1) : -1;
        close(first);
        if (second >= 0) {
            close(second);
            return port;
        }
    }
    giveUp("no two free ports side by side");
}

std::string replacePort(const std::string& text, const std::string& media, int from, int to) {
    const std::string old = "m=" + media + " " + std::to_string(from) + " ";
    const auto at = text.find(old);
    if (at == std::string::npos) {
        giveUp("no such stream in the SDP");
    }
    return std::string(text).replace(at, old.size(), "m=" + media + " " + std::to_string(to) + " ");
}

}  // namespace

RtpSession::RtpSession(const std::string& path) {
    std::string folder = (fs::temp_directory_path() / "kelp-rtp-XXXXXX").string();
    if (!mkdtemp(folder.data())) {
        giveUp("no temporary folder");
    }
    folder_ = folder;
    sdpPath_ = folder_ + "/session.sdp";
    const std::string sent = folder_ + "/sent";

    const int videoPort = freePortPair();
    int audioPort = freePortPair();
    while (audioPort == videoPort) {
        audioPort = freePortPair();
    }
    const int videoRelay = relay_.forward(videoPort);
    const int videoRtcp = relay_.forward(videoPort + 1);
    const int audioRelay = relay_.forward(audioPort);
    const int audioRtcp = relay_.forward(audioPort + 1);
    const auto address = [](int rtp, int rtcp) {
        return "rtp://127.0.0.1:" + std::to_string(rtp) + "?rtcpport=" + std::to_string(rtcp);
    };
    sender_.start({"ffmpeg",
                   "-nostdin",
                   "-v",
                   "error",
                   "-re",
                   "-stream_loop",
                   "-1",
                   "-i",
                   path,
                   "-map",
                   "0:v",
                   "-c",
                   "copy",
                   "-f",
                   "rtp",
                   address(videoRelay, videoRtcp),
                   "-map",
                   "0:a",
                   "-c",
                   "copy",
                   "-f",
                   "rtp",
                   address(audioRelay, audioRtcp),
                   "-sdp_file",
                   sent});

    std::string text;
    for (int i = 0; text.find("m=audio") == std::string::npos || text.back() != '\n'; ++i) {
        if (i == 6000) {
            giveUp("the ffmpeg command doesn't send");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::ifstream file(sent);
        std::ostringstream read;
        read << file.rdbuf();
        text = read.str();
    }
    text = replacePort(text, "video", videoRelay, videoPort);
    text = replacePort(text, "audio", audioRelay, audioPort);
    std::ofstream(sdpPath_) << text;
}

RtpSession::~RtpSession() {
    sender_.kill();
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
}

}  // namespace kelp::test
