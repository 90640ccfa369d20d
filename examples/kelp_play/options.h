#pragma once

#include <string>

#include "settings.h"

// Whose clock picture and sound follow.
enum class Master { Clock, Audio, Video, Host };

// The command line of the player program.
struct Options {
    std::string file;
    bool headless = false;
    bool loop = false;
    int snapshots = 0;  // pictures to write; 0 for none
    std::string snapshotFolder;
    std::string recordFile;    // what is played is written there; empty for no record
    std::string subtitleFile;  // that is shown with it; empty for none
    int retryMs = 0;           // from a failure of the source to its restart; 0 for none
    bool hardware = true;
    Master master = Master::Audio;
    Settings playerOptions;  // for TarnPlayer::setOption
    std::string logLevel;    // a word of the option "log_level"; empty for none
    bool help = false;
};

std::string usage();

// Reads the command line into `options`. On a mistake it says so in `error` and gives false.
bool parseOptions(int argc, char** argv, Options& options, std::string& error);
