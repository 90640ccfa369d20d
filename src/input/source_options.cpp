#include "input/source_options.h"

#include <algorithm>
#include <iterator>

namespace kelp {

namespace {

// FFmpeg's names. Those of RTMP and MMS have further ones that begin with these.
constexpr std::string_view kRemoteProtocols[] = {"http", "https",  "ftp",     "sftp", "smb", "tcp",
                                                 "tls",  "gopher", "gophers", "ipfs", "ipns"};
constexpr const char* kLongestReconnectS = "10";  // between two attempts: it is given up after about as long
constexpr const char* kSdpProtocols = "file,udp,rtp";

// The source's own name, without its folders, and without what is asked of a server.
std::string_view nameIn(std::string_view path) {
    if (path.find("://") != std::string_view::npos) {
        path = path.substr(0, path.find_first_of("?#"));
    }
    return path.substr(path.find_last_of('/') + 1);  // npos + 1 is 0
}

}  // namespace

void setDefaultOptions(OptionMap& options) {
    options["buffer_size"] = "-1";
    options["max_delay"] = "1000000";
    options["reorder_queue_size"] = "1200";
    options["rtsp_transport"] = "tcp";
    options["stimeout"] = "500000";
}

void addSourceOptions(OptionMap& options, const std::string& path) {
    const bool isSdp = path.find(".sdp") != std::string::npos;
    if (isSdp || path.starts_with("rtsp://")) {
        options.try_emplace("fflags", "nobuffer");
    }
    if (isSdp) {
        options.try_emplace("protocol_whitelist", kSdpProtocols);
    }
}

void addOwnOptions(OptionMap& options, std::string_view path, bool startsAtOnce) {
    const bool isRtsp = path.starts_with("rtsp://");
    const bool isSdp = !isRtsp && nameIn(path).find(".sdp") != std::string_view::npos;
    if (isRtsp || isSdp) {
        options.try_emplace(startsAtOnce ? "fpsprobesize" : "fflags", startsAtOnce ? "0" : "nobuffer");
    }
    // What comes over a network has a list of its own, with which it may lead to other addresses and to no file.
    if (isSdp && !isRemote(path)) {
        options.try_emplace("protocol_whitelist", kSdpProtocols);
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

// Another protocol may stand in front, as in "cache:http://".
bool isRemote(std::string_view path) {
    const size_t end = path.find("://");
    if (end == std::string_view::npos) {
        return false;
    }
    std::string_view protocol = path.substr(0, end);
    protocol.remove_prefix(protocol.find_last_of(":+,") + 1);  // npos + 1 is 0
    return std::ranges::find(kRemoteProtocols, protocol) != std::end(kRemoteProtocols) ||
           protocol.starts_with("rtmp") || protocol.starts_with("mms");
}

bool isHttp(std::string_view path) {
    return path.starts_with("http://") || path.starts_with("https://");
}

void addReconnect(OptionMap& options, std::string_view path) {
    if (isHttp(path)) {
        options.try_emplace("reconnect", "1");
        options.try_emplace("reconnect_delay_max", kLongestReconnectS);
    }
}

}  // namespace kelp
