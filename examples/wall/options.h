#pragma once

#include <string>
#include <vector>

#include "settings.h"

// The command line of the video wall.
struct Options {
    std::vector<std::string> files;  // one for each tile
    int soundTile = 1;               // the one that is heard; 0 for none
    Settings settings;               // for each player
    bool headless = false;
    bool help = false;
};

std::string usage();

// Reads the command line into `options`. On a mistake it says so in `error` and gives false.
bool parseOptions(int argc, char** argv, Options& options, std::string& error);
