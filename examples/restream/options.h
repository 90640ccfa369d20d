#pragma once

#include <string>

#include "settings.h"

// The command line of the restream program.
struct Options {
    std::string source;
    std::string destination;     // for StreamMuxer; empty with --udp
    std::string udpAddress;      // dotted text; empty without --udp
    unsigned short udpPort = 0;  //
    bool fast = false;           // don't keep to the source's pace
    int videoTrack = -1;         // the number of the one to publish; -1 for FFmpeg's choice
    Settings settings;           // for the muxer
    bool help = false;
};

extern const char* const kUsage;

// Reads the command line into `options`. On a mistake it says so in `error` and gives false.
bool parseOptions(int argc, char** argv, Options& options, std::string& error);
