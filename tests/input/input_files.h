#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelp::test {

// A file that the ffmpeg command makes for these tests.
struct InputFile {
    const char* name;       // of the file; its ending chooses the container
    const char* arguments;  // of the command, without the file
};

// 160x120 test picture and a 440 Hz tone. Key frames lie 1 s apart, in the .ts files 2 s.
const std::vector<InputFile>& inputFiles();

// The path of one of inputFiles, or of "tracks.mkv" (picture, sound, sound, picture, with languages and titles),
// "cover.m4a" (sound with a cover picture) or another one of a test's own. It is made when it is asked for and isn't
// there yet.
std::string inputFile(const std::string& name);

std::vector<uint8_t> readBytes(const std::string& path);
void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes);

// A path for a file of this process's own, below the build folder.
std::string scratchPath(const std::string& name);

}  // namespace kelp::test
