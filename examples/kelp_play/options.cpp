#include "options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include "keys.h"

namespace {

constexpr std::array<std::string_view, 6> kLogLevels = {"trace", "debug", "info", "warning", "error", "none"};
constexpr std::array<std::pair<std::string_view, Master>, 4> kMasters = {
    {{"clock", Master::Clock}, {"audio", Master::Audio}, {"video", Master::Video}, {"host", Master::Host}}};

// Reads the words of a command line one after the other.
class Parser {
public:
    Parser(int argc, char** argv, Options& options, std::string& error)
        : words_(argv + 1, argv + std::max(argc, 1)), options_(options), error_(error) {}

    bool run() {
        bool optionsEnded = false;
        for (; next_ < words_.size(); ++next_) {
            const std::string_view word = words_[next_];
            if (optionsEnded || word.size() < 2 || word[0] != '-') {
                if (!options_.file.empty()) {
                    return mistake("more than one file: ", word);
                }
                options_.file = word;
            } else if (word == "--") {
                optionsEnded = true;
            } else if (!option(word)) {
                return false;
            }
        }
        return options_.help || !options_.file.empty() || mistake("no file given", "");
    }

private:
    bool option(std::string_view word) {
        if (word == "--headless") {
            options_.headless = true;
        } else if (word == "--loop") {
            options_.loop = true;
        } else if (word == "--help") {
            options_.help = true;
        } else if (word == "--no-hw") {
            options_.hardware = false;
        } else if (word == "--snapshot") {
            if (!hasValues(2)) {
                return mistake("--snapshot takes a number and a folder", "");
            }
            if (!number(options_.snapshots, 1)) {
                return mistake("not a number of pictures: ", words_[next_]);
            }
            options_.snapshotFolder = words_[++next_];
        } else if (word == "--record" || word == "--retry" || word == "--master" || word == "--option" ||
                   word == "--log" || word == "--subtitles") {
            return hasValues(1) ? optionWithValue(word) : mistake(word, " takes a value");
        } else {
            return mistake("unknown option ", word);
        }
        return true;
    }

    bool optionWithValue(std::string_view word) {
        if (word == "--retry") {
            return number(options_.retryMs, 0) || mistake("not a number of milliseconds: ", words_[next_]);
        }
        const std::string_view value = words_[++next_];
        if (word == "--record") {
            options_.recordFile = value;
        } else if (word == "--subtitles") {
            options_.subtitleFile = value;
        } else if (word == "--master") {
            const auto found = std::find_if(kMasters.begin(), kMasters.end(),
                                            [&](const auto& master) { return master.first == value; });
            if (found == kMasters.end()) {
                return mistake("no master of that name: ", value);
            }
            options_.master = found->second;
        } else if (word == "--log") {
            if (std::find(kLogLevels.begin(), kLogLevels.end(), value) == kLogLevels.end()) {
                return mistake("no log level of that name: ", value);
            }
            options_.logLevel = value;
        } else if (!addSetting(value, options_.playerOptions)) {
            return mistake("not KEY=VALUE: ", value);
        }
        return true;
    }

    bool hasValues(size_t count) const { return next_ + count < words_.size(); }

    // Reads the next word into `value`; false if it isn't a number, or less than `least`.
    bool number(int& value, int least) {
        const char* text = words_[++next_];
        const char* end = text + std::strlen(text);
        const auto parsed = std::from_chars(text, end, value);
        return parsed.ec == std::errc() && parsed.ptr == end && value >= least;
    }

    bool mistake(std::string_view what, std::string_view word) {
        error_ = std::string(what).append(word);
        return false;
    }

    const std::vector<const char*> words_;
    size_t next_ = 0;
    Options& options_;
    std::string& error_;
};

}  // namespace

std::string usage() {
    return std::string(
               "usage: kelp_play [OPTIONS] FILE\n"
               "\n"
               "  --headless          play without a window\n"
               "  --loop              play it again and again\n"
               "  --snapshot N DIR    write N pictures, evenly spaced, as PNG files into DIR\n"
               "  --record FILE       write what is played to an .mp4, .mov, .mkv or .ts file, without encoding\n"
               "  --subtitles FILE    show the subtitles of another file with it\n"
               "  --retry MS          start a source that failed again, so many milliseconds later\n"
               "  --no-hw             decode in software only\n"
               "  --master WHICH      what picture and sound follow: clock, audio (the default), video or host\n"
               "  --option KEY=VALUE  an option for opening the source; may be given again and again\n"
               "  --log LEVEL         log to standard error: trace, debug, info, warning, error or none\n"
               "  --help              show this\n"
               "\n") +
           kKeysUsage +
           ". pauses and shows the next picture, and , the one before.\n"
           "l plays the film again and again, or no more, L marks the beginning of a part, its end, and no more.\n"
           "f fills the screen, z the window, whatever its shape. a, v and j go to the next sound, video and\n"
           "subtitles of a file with several, d to the next sound device. s saves the picture as a PNG file,\n"
           "i shows how the playback goes.\n"
           "A click or drag in the window goes to that part of the time line.\n";
}

bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
    return Parser(argc, argv, options, error).run();
}
