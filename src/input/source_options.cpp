#include "input/source_options.h"

namespace kelp {

void setDefaultOptions(OptionMap& options) {
    options["buffer_size"] = "-1";
    options["max_delay"] = "1000000";
    options["reorder_queue_size"] = "1200";
    options["rtsp_transport"] = "tcp";
    options["stimeout"] = "500000";
}

void addSourceOptions(OptionMap& options, const std::string& path) {
    const bool isRtsp = path.starts_with("rtsp://");
    const bool isSdp = path.find(".sdp") != std::string::npos;
    if (isRtsp || isSdp) {
        options.try_emplace("fflags", "nobuffer");
    }
    if (isSdp) {
        options.try_emplace("protocol_whitelist", "file,udp,rtp");
    }
}

// The library asks for one after the other on the same connection.
void addRtspFallback(OptionMap& options) {
    if (const auto transport = options.find("rtsp_transport");
        transport != options.end() && transport->second == "tcp") {
        transport->second = "tcp+udp";
        options["rtsp_flags"] += "+prefer_tcp";
    }
}

}  // namespace kelp
