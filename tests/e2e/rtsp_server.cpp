#include "e2e/rtsp_server.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kelp::test {

namespace {

// The system's own: another Python may lack the bindings.
constexpr const char* kPython = "/usr/bin/python3";
constexpr int kStartLimitMs = 60000;

}  // namespace

RtspServer::RtspServer(Files files, int port, Transport transport)
    : files_(std::move(files)), port_(port), transport_(transport) {
    start();
}

std::string RtspServer::url(const std::string& name) const {
    return "rtsp://127.0.0.1:" + std::to_string(port_) + "/" + name;
}

void RtspServer::start(Files files) {
    files_ = std::move(files);
    start();
}

void RtspServer::start() {
    std::vector<std::string> words = {kPython, KELP_RTSP_SERVER_SCRIPT, "--port", std::to_string(port_)};
    if (transport_ == Transport::UdpOnly) {
        words.emplace_back("--udp-only");
    }
    for (const auto& [name, path] : files_) {
        words.push_back("--file");
        words.push_back(name + "=" + path);
    }
    process_.start(words);
    if (std::sscanf(process_.readLine(kStartLimitMs).c_str(), "ready %d", &port_) != 1) {
        std::fprintf(stderr,
                     "rtsp server: it doesn't start; are Debian's gir1.2-gst-rtsp-server-1.0, python3-gi and "
                     "the plugins there?\n");
        std::abort();
    }
}

}  // namespace kelp::test
