#include "options.h"

#include <charconv>
#include <cstring>
#include <string_view>

#include "keys.h"

namespace {

constexpr int kMostTiles = 64;

bool number(const char* text, int most, int& value) {
    const char* end = text + std::strlen(text);
    const auto parsed = std::from_chars(text, end, value);
    return parsed.ec == std::errc() && parsed.ptr == end && value >= 0 && value <= most;
}

}  // namespace

std::string usage() {
    return std::string(
               "usage: wall [OPTIONS] FILE...\n"
               "\n"
               "Shows the files side by side, all at the same time of one clock.\n"
               "\n"
               "  --tiles N            so many tiles, which take the files in turn; as many as files by default\n"
               "  --sound N            the tile that is heard, 1 by default, 0 for none\n"
               "  --option KEY=VALUE   an option of all players, such as audio_track=2; may be given again and again\n"
               "  --headless           without a window\n"
               "  --help               show this\n"
               "\n") +
           kKeysUsage;
}

bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
    int tiles = 0;
    bool optionsEnded = false;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (optionsEnded || word.size() < 2 || word[0] != '-') {
            files.emplace_back(word);
        } else if (word == "--") {
            optionsEnded = true;
        } else if (word == "--headless") {
            options.headless = true;
        } else if (word == "--help") {
            options.help = true;
        } else if (word == "--tiles" || word == "--sound") {
            if (++i == argc || !number(argv[i], kMostTiles, word == "--tiles" ? tiles : options.soundTile)) {
                error = std::string(word) + " takes a number up to " + std::to_string(kMostTiles);
                return false;
            }
        } else if (word == "--option") {
            if (++i == argc || !addSetting(argv[i], options.settings)) {
                error = "--option takes KEY=VALUE";
                return false;
            }
        } else {
            error = "unknown option " + std::string(word);
            return false;
        }
    }
    if (files.empty() && !options.help) {
        error = "no file given";
        return false;
    }
    if (files.size() > kMostTiles) {
        error = "too many files";
        return false;
    }
    const size_t count = tiles > 0 ? static_cast<size_t>(tiles) : files.size();
    for (size_t i = 0; i < count && !files.empty(); ++i) {
        options.files.push_back(files[i % files.size()]);
    }
    return true;
}
