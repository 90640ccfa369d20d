#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace kelp::test {

// What the muxer under test asks of libavformat. Every call is passed on to the library, unless it is named in
// `failing`: then it fails at once.
struct MuxerCalls {
    struct Packet {
        int64_t pts;
        int64_t dts;
        const unsigned char* data;
        int size;
        int streamIndex;
        int flags;
        int64_t duration;
        int64_t pos;
        int timeBaseNum;
        int timeBaseDen;
        bool referenceCounted;
    };
    struct Stream {
        int codecType;
        int codecId;
        int width;
        int height;
        int format;
        int extraDataSize;
        int timeBaseNum;
        int timeBaseDen;
    };

    std::vector<std::string> names;  // of the functions, in order
    std::string muxer;               // as asked for by name
    std::string path;                // of the context
    std::string avioPath;            // of the file
    Stream stream{};                 // when the header was to be written
    std::map<std::string, std::string> options;
    std::vector<Packet> packets;

    std::set<std::string> failing;
};

// The calls since `resetMuxerCalls`.
MuxerCalls& muxerCalls();
void resetMuxerCalls();

}  // namespace kelp::test
