#pragma once

#include <string>

namespace kelp::test {

// The path of a small file for the tests, made by the ffmpeg command in the build folder if it isn't there yet.
//
//     name          streams
//     av.mp4        H.264 64x48 at 25 pictures a second, AAC stereo; 2 s
//     video.mp4     the same picture alone; 2 s
//     audio.mp4     the same sound alone; 2 s
//     foreign.mkv   FFV1 64x48, which is no codec of the library, and AAC; 1 s
//     long.mp4      as av.mp4, with a key frame every second; 20 s
std::string smallMedia(const std::string& name);

}  // namespace kelp::test
