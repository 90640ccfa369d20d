#include "playtask/small_media.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>

namespace kelp::test {

namespace {

const char* const kPicture = "-f lavfi -i testsrc=s=64x48:r=25:d=%s ";
const char* const kSound = "-f lavfi -i sine=f=440:r=48000:d=%s ";

std::string input(const char* format, const char* seconds) {
    std::string text(format);
    return text.replace(text.find("%s"), 2, seconds);
}

const std::map<std::string, std::string>& recipes() {
    const std::string h264 = "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -g 25 ";
    const std::string aac = "-c:a aac -ac 2 ";
    static const std::map<std::string, std::string> table = {
        {"av.mp4", input(kPicture, "2") + input(kSound, "2") + h264 + aac},
        {"video.mp4", input(kPicture, "2") + h264},
        {"audio.mp4", input(kSound, "2") + aac},
        {"foreign.mkv", input(kPicture, "1") + input(kSound, "1") + "-c:v ffv1 " + aac},
        {"long.mp4", input(kPicture, "20") + input(kSound, "20") + h264 + aac},
    };
    return table;
}

}  // namespace

std::string smallMedia(const std::string& name) {
    const std::filesystem::path folder(KELP_TEST_SMALL_MEDIA_DIR);
    const auto path = folder / name;
    if (!std::filesystem::exists(path)) {
        // Tests run at the same time: each makes its own, and the last one to be renamed stays.
        std::filesystem::create_directories(folder);
        const auto draft = folder / (std::to_string(getpid()) + "_" + name);
        const std::string command = "ffmpeg -v error -y -fflags +bitexact " + recipes().at(name) + draft.string();
        if (std::system(command.c_str()) != 0) {
            std::fprintf(stderr, "can't make %s: %s\n", path.c_str(), command.c_str());
            std::abort();
        }
        std::filesystem::rename(draft, path);
    }
    return path.string();
}

}  // namespace kelp::test
