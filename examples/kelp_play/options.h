#pragma once

#include <string>

// The command line of the player program.
struct Options {
    std::string file;
    bool headless = false;
    int snapshots = 0;  // pictures to write; 0 for none
    std::string snapshotFolder;
    bool help = false;
};

extern const char* const kUsage;

// Reads the command line into `options`. On a mistake it says so in `error` and gives false.
bool parseOptions(int argc, char** argv, Options& options, std::string& error);
