#include "input/input_files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

namespace kelp::test {

namespace {

#define PICTURE(seconds) "-f lavfi -i testsrc=size=160x120:rate=25:duration=" #seconds " "
#define TONE(seconds) "-f lavfi -i sine=frequency=440:duration=" #seconds " "

const std::vector<InputFile> kFiles = {
    {"h264_aac.mp4", PICTURE(3) TONE(3) "-c:v libx264 -g 25 -bf 2 -pix_fmt yuv420p -c:a aac"},
    {"h264_mp3.ts", PICTURE(9) TONE(9) "-c:v libx264 -g 50 -sc_threshold 0 -bf 0 -pix_fmt yuv420p -c:a libmp3lame"},
    {"mp3.ts", TONE(9) "-c:a libmp3lame"},
    {"hevc_vorbis.mkv", PICTURE(2) TONE(2) "-c:v libx265 -x265-params log-level=none:keyint=25 -pix_fmt yuv420p "
                                           "-c:a libvorbis"},
    {"mpeg4_mp3.avi", PICTURE(2) TONE(2) "-c:v mpeg4 -g 25 -c:a libmp3lame"},
    {"msmpeg4v2_alaw.avi", PICTURE(2) TONE(2) "-c:v msmpeg4v2 -g 25 -c:a pcm_alaw -ar 8000"},
    {"msmpeg4v3.avi", PICTURE(2) "-c:v msmpeg4 -g 25"},
    {"mjpeg.avi", PICTURE(2) "-c:v mjpeg"},
    {"h264_10bit.mkv", PICTURE(2) "-c:v libx264 -g 25 -pix_fmt yuv420p10le"},
    {"alaw.wav", TONE(2) "-c:a pcm_alaw -ar 8000"},
    {"vorbis.ogg", TONE(2) "-c:a libvorbis"},
    {"vp9_opus.webm",
     PICTURE(1) TONE(1) "-c:v libvpx-vp9 -pix_fmt yuv420p -deadline realtime -cpu-used 8 -c:a libopus"},
};

// Each of one test's own.
const std::vector<InputFile> kOtherFiles = {
    {"tracks.mkv", PICTURE(1) TONE(1) "-map 0 -map 1 -map 1 -map 0 -c:v mpeg4 -c:a libmp3lame -ar:a:1 22050 -ac:a:0 2 "
                                      "-metadata:s:a:0 language=eng -metadata:s:a:0 title='The film' "
                                      "-metadata:s:a:1 language=fin -metadata:s:a:1 title='Ohjaajan ääni' "
                                      "-disposition:a:0 0 -disposition:a:1 default"},
    // Without key flags, and with an error for its end.
    {"roq.roq", "-f lavfi -i testsrc=size=128x128:rate=30:duration=4 -c:v roqvideo"},
    {"protected.mp4", PICTURE(2) TONE(2) "-c:v libx264 -pix_fmt yuv420p -c:a aac -encryption_scheme cenc-aes-ctr "
                                         "-encryption_key 00112233445566778899aabbccddeeff "
                                         "-encryption_kid 00112233445566778899aabbccddee00"},
    {"photo.jpg", PICTURE(1) "-frames:v 1"},
    {"cover.m4a", "-f lavfi -i testsrc=size=160x120:rate=1:duration=1 " TONE(1) "-map 1 -map 0 -c:a aac -c:v mjpeg "
                                                                                "-pix_fmt yuvj420p "
                                                                                "-disposition:v attached_pic"},
};

std::string made(const InputFile& file) {
    const std::filesystem::path folder = KELP_INPUT_FILES_DIR;
    // The name tells the arguments, so that a file is made anew when they change.
    const auto hash = std::to_string(std::hash<std::string>()(file.arguments));
    const auto path = folder / (hash + "_" + file.name);
    if (!std::filesystem::exists(path)) {
        std::filesystem::create_directories(folder);
        // Made under a name of its own: test programs run side by side.
        const auto draft = folder / (std::to_string(getpid()) + "_" + file.name);
        const std::string command =
            "ffmpeg -nostdin -loglevel error -y " + std::string(file.arguments) + " '" + draft.string() + "'";
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        std::filesystem::rename(draft, path);
    }
    return path;
}

}  // namespace

const std::vector<InputFile>& inputFiles() {
    return kFiles;
}

std::string inputFile(const std::string& name) {
    for (const auto* const table : {&kFiles, &kOtherFiles}) {
        for (const auto& file : *table) {
            if (name == file.name) {
                return made(file);
            }
        }
    }
    ADD_FAILURE() << "no such file in the tables: " << name;
    return name;
}

std::vector<uint8_t> readBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
}

std::string scratchPath(const std::string& name) {
    std::filesystem::create_directories(KELP_INPUT_FILES_DIR);
    return std::string(KELP_INPUT_FILES_DIR) + "/scratch_" + std::to_string(getpid()) + "_" + name;
}

}  // namespace kelp::test
