#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "subtitle/subtitle_file.h"

namespace kelp::test {

// A path of this process's own, below the build folder.
inline std::string subtitlePath(const std::string& name) {
    std::filesystem::create_directories(KELP_SUBTITLE_FILES_DIR);
    return std::string(KELP_SUBTITLE_FILES_DIR) + "/" + std::to_string(getpid()) + "_" + name;
}

inline std::string writeFile(const std::string& name, const std::string& content) {
    const auto path = subtitlePath(name);
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

// What the ffmpeg command makes of `from`.
inline std::string convert(const std::string& from, const std::string& name, const std::string& arguments = "") {
    const auto path = subtitlePath(name);
    const std::string command = "ffmpeg -nostdin -loglevel error -y -i '" + from + "' " + arguments + " '" + path + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return path;
}

inline SubtitleFile readSubtitles(const std::string& path) {
    return SubtitleFile::read(path, {}, 5, [] { return false; });
}

// The first track of a file; null if there is none.
inline std::shared_ptr<SubtitleTrack> readTrack(const std::string& path) {
    const auto file = readSubtitles(path);
    EXPECT_FALSE(file.entries.empty()) << path;
    return file.entries.empty() ? nullptr : file.entries[0].known;
}

constexpr char kSrt[] =
    "1\n00:00:01,000 --> 00:00:02,500\n<i>Hello</i>\nthere\n\n"
    "2\n00:00:03,000 --> 00:00:04,000\nS\xC3\xBC\xC3\x9F\n\n";

// The head of a script for a picture of 640x360, with a style that needs no particular font.
constexpr char kScript[] =
    "[Script Info]\nScriptType: v4.00+\nPlayResX: 640\nPlayResY: 360\n\n[V4+ Styles]\n"
    "Format: Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, OutlineColour, BackColour, Bold, Italic, "
    "Underline, StrikeOut, ScaleX, ScaleY, Spacing, Angle, BorderStyle, Outline, Shadow, Alignment, MarginL, MarginR, "
    "MarginV, Encoding\n"
    "Style: Default,DejaVu Sans,40,&H0000FFFF,&H000000FF,&H00000000,&H80000000,0,0,0,0,100,100,0,0,1,3,2,2,20,20,20,1\n"
    "Style: Sign,DejaVu Sans,30,&H400000FF,&H000000FF,&H00FF0000,&H80000000,1,0,0,0,100,100,0,0,1,2,0,8,20,20,20,1\n\n"
    "[Events]\nFormat: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n";

}  // namespace kelp::test
