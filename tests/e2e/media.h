#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelp::test {

// One file that the tests play.
struct MediaFile {
    const char* name;     // the file's name, in the media folder
    const char* special;  // what the tests want it for
    // Shell commands that make the file {out}; {tmp} is a folder for what lies in between, {dir} the media folder with
    // the files of the rows before. `ffmpeg` stands for the command with its usual arguments, `turn IN OUT` copies a
    // file and gives it a display matrix of 90 degrees.
    const char* make;
    int width;       // of the picture as coded; 0 for none
    int height;      // of the picture as coded
    int frames;      // in the video stream; 0 for none or unknown
    int durationMs;  // of the longer stream, about
    bool plainYuv;   // 8 bits, 4:2:0, limited range, even size: the player's pictures are the decoder's, byte for byte
    double toneHz;   // of the sound; 0 for none that is played
};

// All files, in the order in which they are made.
const std::vector<MediaFile>& mediaTable();

// The row of that name; ends the test program if there is none.
const MediaFile& mediaFile(std::string_view name);

// Where a file of the table lies. It was made by the program make_media.
std::string mediaPath(const std::string& name);

}  // namespace kelp::test
