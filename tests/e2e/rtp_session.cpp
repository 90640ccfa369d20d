#include "e2e/rtp_session.h"

#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "e2e/free_ports.h"

namespace kelp::test {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void giveUp(const char* what) {
    std::fprintf(stderr, "rtp session: %s\n", what);
    std::abort();
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

    const int videoPort = freePortPair(SOCK_DGRAM);
    const int audioPort = freePortPair(SOCK_DGRAM);
    const int videoRelay = relay_.forward(videoPort);
    const int videoRtcp = relay_.forward(videoPort + 1);
    const int audioRelay = relay_.forward(audioPort);
    const int audioRtcp = relay_.forward(audioPort + 1);
    const auto address = [](int rtp, int rtcp) {
        return "rtp://127.0.0.1:" + std::to_string(rtp) + "?rtcpport=" + std::to_string(rtcp);
    };
    sender_.start({"ffmpeg",    "-nostdin", "-v",
                   "error",     "-re",      "-stream_loop",
                   "-1",        "-i",       path,
                   "-map",      "0:v",      "-c",
                   "copy",      "-f",       "rtp",
                   "-rtpflags", "send_bye", address(videoRelay, videoRtcp),
                   "-map",      "0:a",      "-c",
                   "copy",      "-f",       "rtp",
                   "-rtpflags", "send_bye", address(audioRelay, audioRtcp),
                   "-sdp_file", sent});

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
