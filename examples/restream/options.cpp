#include "options.h"

#include <arpa/inet.h>

#include <charconv>
#include <vector>

const char* const kUsage =
    "usage: restream [OPTIONS] SOURCE DESTINATION\n"
    "       restream [OPTIONS] --udp HOST:PORT SOURCE\n"
    "\n"
    "Publishes the video of SOURCE, a file or a camera's URL, as it is encoded, at its own pace. DESTINATION is an "
    "RTSP\n"
    "URL (rtsp://HOST:PORT/PATH), an RTP address (rtp://HOST:PORT) or an MP4 file.\n"
    "\n"
    "  --udp HOST:PORT      send the bytes of SOURCE, a file with an MPEG transport stream, as datagrams; HOST is an\n"
    "                       IPv4 address or localhost\n"
    "  --video-track N      the video of that number, where there are several\n"
    "  --fast               send as fast as it goes\n"
    "  --option KEY=VALUE   an option for the output, as FFmpeg's muxers take them\n"
    "  --help               show this\n";

namespace {

bool parseUdp(const std::string& text, Options& options) {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    options.udpAddress = text.substr(0, colon) == "localhost" ? "127.0.0.1" : text.substr(0, colon);
    in_addr address{};
    int port = 0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data() + colon + 1, end, port);
    options.udpPort = static_cast<unsigned short>(port);
    return inet_pton(AF_INET, options.udpAddress.c_str(), &address) == 1 && parsed.ec == std::errc() &&
           parsed.ptr == end && port >= 1 && port <= 65535;
}

bool parseNumber(const std::string& text, int& number) {
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    return parsed.ec == std::errc() && parsed.ptr == end && number >= 0;
}

}  // namespace

bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
    std::vector<std::string> names;
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const bool hasValue = i + 1 < argc;
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            names.push_back(argument);
        } else if (argument == "--") {
            optionsEnded = true;
        } else if (argument == "--help") {
            options.help = true;
        } else if (argument == "--fast") {
            options.fast = true;
        } else if (argument == "--udp") {
            if (!hasValue || !parseUdp(argv[++i], options)) {
                error = "--udp takes an IPv4 address and a port: HOST:PORT";
                return false;
            }
        } else if (argument == "--option") {
            if (!hasValue || !addSetting(argv[++i], options.settings)) {
                error = "--option takes KEY=VALUE";
                return false;
            }
        } else if (argument == "--video-track") {
            if (!hasValue || !parseNumber(argv[++i], options.videoTrack)) {
                error = "--video-track takes the number of a track";
                return false;
            }
        } else {
            error = "unknown option " + argument;
            return false;
        }
    }
    if (options.help) {
        return true;
    }
    const size_t wanted = options.udpAddress.empty() ? 2 : 1;
    if (names.size() != wanted) {
        error = names.empty()           ? "no source given"
                : names.size() > wanted ? "too many names: " + names[wanted]
                                        : "no destination given";
        return false;
    }
    options.source = names[0];
    options.destination = wanted == 2 ? names[1] : "";
    return true;
}
