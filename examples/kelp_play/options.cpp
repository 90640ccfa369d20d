#include "options.h"

#include <charconv>
#include <cstring>

const char* const kUsage =
    "usage: kelp_play [OPTIONS] FILE\n"
    "\n"
    "  --headless         play without a window\n"
    "  --snapshot N DIR   write N pictures, evenly spaced, as PNG files into DIR\n"
    "  --help             show this\n"
    "\n"
    "Keys: space pauses and resumes, 9 and 0 lower and raise the volume, q or Escape quits.\n";

bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        if (optionsEnded || argument[0] != '-' || argument[1] == '\0') {
            if (!options.file.empty()) {
                error = std::string("more than one file: ") + argument;
                return false;
            }
            options.file = argument;
        } else if (std::strcmp(argument, "--") == 0) {
            optionsEnded = true;
        } else if (std::strcmp(argument, "--headless") == 0) {
            options.headless = true;
        } else if (std::strcmp(argument, "--help") == 0) {
            options.help = true;
        } else if (std::strcmp(argument, "--snapshot") == 0) {
            if (i + 2 >= argc) {
                error = "--snapshot takes a number and a folder";
                return false;
            }
            const char* number = argv[++i];
            const char* end = number + std::strlen(number);
            const auto parsed = std::from_chars(number, end, options.snapshots);
            if (parsed.ec != std::errc() || parsed.ptr != end || options.snapshots < 1) {
                error = std::string("not a number of pictures: ") + number;
                return false;
            }
            options.snapshotFolder = argv[++i];
        } else {
            error = std::string("unknown option ") + argument;
            return false;
        }
    }
    if (options.file.empty() && !options.help) {
        error = "no file given";
        return false;
    }
    return true;
}
