#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace kelp::test {

// A file with a second of pictures by one encoder, of sound by another, or of both, in the container that its name
// ends in. The pictures are 25 that all differ, the sound is a tone of 440 Hz.
struct CodecFile {
    const char* name;   // the file's name, in the folder "codecs" of the media folder
    const char* video;  // the encoder of the ffmpeg command, and its options; empty for no pictures
    const char* audio;  // the same for the sound

    friend std::ostream& operator<<(std::ostream& out, const CodecFile& file) { return out << file.name; }
};

constexpr int kCodecPictures = 25;
constexpr int kCodecMs = 1000;
constexpr double kCodecToneHz = 440;

// Every encoder in it is there in Debian's FFmpeg; a file that can't be made fails make_media.
const std::vector<CodecFile>& codecTable();

// The shell command that makes the file {out}, as in the table of media files.
std::string makeCommand(const CodecFile& file);

// Whether a player that nobody asks for more plays what this encoder, one of the table's, has made.
bool isOnShortList(const std::string& encoder);

}  // namespace kelp::test
