#include "clips.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace kelp::bench {

namespace {

// Makes the file `name` with the ffmpeg command, unless it is there already.
std::string make(const Settings& settings, const std::string& name, const std::string& arguments) {
    const std::filesystem::path folder = std::filesystem::path(settings.folder) / "bench_media";
    const std::string path = (folder / name).string();
    std::error_code error;
    if (std::filesystem::exists(path, error)) {
        return path;
    }
    std::filesystem::create_directories(folder, error);
    // Renamed when it is whole: what an interrupted run leaves behind isn't taken for the clip.
    const std::string part = path + ".part.mp4";
    const std::string command = "ffmpeg -nostdin -v error -y " + arguments + " '" + part + "'";
    if (std::system(command.c_str()) != 0) {
        return {};
    }
    std::filesystem::rename(part, path, error);
    return error ? std::string() : path;
}

}  // namespace

std::string clipPath(const Settings& settings, const Clip& clip) {
    const std::string size = std::to_string(clip.width) + "x" + std::to_string(clip.height);
    const std::string seconds = std::to_string(clip.seconds);
    std::string name = size + "_" + clip.fps + "_" + seconds + "s" + (clip.hasSound ? "" : "_silent") +
                       (clip.isHeavy ? "_heavy" : "") + ".mp4";
    std::replace(name.begin(), name.end(), '/', '-');
    const std::string sound =
        "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=" + seconds + " -ac 2 -c:a aac -b:a 128k";
    return make(
        settings, name,
        "-f lavfi -i testsrc2=size=" + size + ":rate=" + clip.fps + ":duration=" + seconds +
            (clip.isHeavy ? ",noise=alls=20:allf=t " : " ") + (clip.hasSound ? sound : "") +
            " -c:v libx264 -bf 2 -g 60 -pix_fmt yuv420p " +
            (clip.isHeavy ? "-preset medium -b:v 5M -maxrate 6M -bufsize 10M -sc_threshold 0" : "-preset veryfast"));
}

std::string encodedPath(const Settings& settings, const Clip& clip, const std::string& encoder) {
    const std::string size = std::to_string(clip.width) + "x" + std::to_string(clip.height);
    const std::string seconds = std::to_string(clip.seconds);
    return make(settings, encoder.substr(0, encoder.find(' ')) + "_" + size + "_" + clip.fps + "_" + seconds + "s.mp4",
                "-f lavfi -i testsrc2=size=" + size + ":rate=" + clip.fps + ":duration=" + seconds +
                    " -pix_fmt yuv420p -g 60 -c:v " + encoder);
}

std::string flashesPath(const Settings& settings, const Flashing& flashing) {
    const std::string length = std::to_string(flashing.seconds);
    const std::string period = std::to_string(flashing.periodMs);
    const std::string bright = std::to_string(flashing.lengthMs);
    const auto on = [&](const std::string& t) {
        return "lt(mod(1000*" + t + "\\," + period + ")\\," + bright + ")*gte(mod(1000*" + t + "\\,10*" + period +
               ")\\," + bright + ")*lt(t\\," + length + "-0.5)";
    };
    return make(settings, "flashes_" + length + "s_" + period + "_" + bright + ".mp4",
                "-f lavfi -i \"color=c=black:size=640x360:rate=25:duration=" + length +
                    ",drawbox=c=white:t=fill:enable='" + on("(t+0.001)") +
                    "'\" -f lavfi -i \"aevalsrc='0.8*sin(2*PI*1000*t)*" + on("t") + "':s=48000:d=" + length +
                    "\" -ac 2 -c:v libx264 -preset veryfast -bf 2 -g 50 -pix_fmt yuv420p -c:a aac -b:a 128k");
}

std::string everydayPath(const Settings& settings) {
    if (!settings.file.empty()) {
        return settings.file;
    }
    Clip clip{.width = 1920, .height = 1080, .seconds = std::max(20, settings.seconds)};
    if (settings.length == Length::Smoke) {
        clip = {.seconds = 10};
    }
    return clipPath(settings, clip);
}

std::string heavyPath(const Settings& settings) {
    const bool isWanted = settings.file.empty() && settings.length != Length::Smoke;
    return isWanted ? clipPath(settings, {.width = 1920, .height = 1080, .isHeavy = true}) : std::string();
}

std::vector<NamedClip> latencyClips(const Settings& settings) {
    std::vector<NamedClip> films = {{settings.file.empty() ? "light" : "file", everydayPath(settings)}};
    if (const std::string path = heavyPath(settings); !path.empty()) {
        films.push_back({"heavy", path});
    }
    return films;
}

std::string silentPath(const Settings& settings, const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    const std::string stem = std::filesystem::path(path).stem().string();
    return make(settings, stem + "_" + std::to_string(size) + "_silent.mp4", "-i '" + path + "' -an -c copy");
}

}  // namespace kelp::bench
