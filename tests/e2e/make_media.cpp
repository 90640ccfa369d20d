// Makes the media files that the end-to-end tests play; run once before them.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e/codec_media.h"
#include "e2e/media.h"

namespace kelp::test {
namespace {

namespace fs = std::filesystem;

std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
    return text;
}

std::string readAll(const fs::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Makes the file of that name, if it isn't there or was made by another command, or if a file that it is made from was.
// False if the command fails.
bool makeFile(const fs::path& folder, const std::string& name, const std::string& make, std::atomic<bool>& rebuilt) {
    const fs::path target = folder / name;
    const fs::path stamp = folder / (name + ".command");
    const bool derived = make.find("{dir}") != std::string::npos;
    if (fs::exists(target) && readAll(stamp) == make && !(derived && rebuilt)) {
        return true;
    }
    rebuilt = true;
    fs::remove(target);
    std::string command = replaced(make, "{out}", "'" + target.string() + "'");
    command = replaced(command, "{tmp}", "'" + (folder / "scratch").string() + "'");
    command = replaced(command, "{dir}", "'" + folder.string() + "'");
    // The command's way to a display matrix changed with its release 6.
    command =
        "ffmpeg() { command ffmpeg -nostdin -v error -y -bitexact \"$@\"; }; "
        "turn() { if command ffmpeg -v quiet -h full | grep -q display_rotation; "
        "then ffmpeg -display_rotation 270 -i \"$1\" -c copy \"$2\"; "
        "else ffmpeg -i \"$1\" -c copy -metadata:s:v:0 rotate=270 \"$2\"; fi; }; " +
        command;
    std::printf("%s\n", name.c_str());
    if (std::system(command.c_str()) != 0 || !fs::exists(target)) {
        std::fprintf(stderr, "can't make %s: %s\n", name.c_str(), command.c_str());
        fs::remove(target);
        return false;
    }
    std::ofstream(stamp) << make;
    return true;
}

// The files of both tables, those of the second several at a time: none is made from another one.
bool makeMissing(const fs::path& folder) {
    fs::create_directories(folder / "scratch");
    fs::create_directories(folder / "codecs");
    std::atomic<bool> rebuilt = false;
    for (const auto& file : mediaTable()) {
        if (!makeFile(folder, file.name, file.make, rebuilt)) {
            return false;
        }
    }
    std::atomic<size_t> next = 0;
    std::atomic<bool> made = true;
    const auto makeSome = [&] {
        for (size_t i = next++; made && i < codecTable().size(); i = next++) {
            const CodecFile& file = codecTable()[i];
            if (!makeFile(folder / "codecs", file.name, makeCommand(file), rebuilt)) {
                made = false;
            }
        }
    };
    std::vector<std::thread> threads(std::max(1U, std::thread::hardware_concurrency()));
    for (auto& thread : threads) {
        thread = std::thread(makeSome);
    }
    for (auto& thread : threads) {
        thread.join();
    }
    fs::remove_all(folder / "scratch");
    return made;
}

bool makeMedia() {
    const fs::path folder(mediaPath(""));
    fs::create_directories(folder);
    // Two runs may begin at once: one makes the files, the other one waits until they are there.
    const int lock = open((folder / ".lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644);
    if (lock == -1 || flock(lock, LOCK_EX) != 0) {
        std::perror("the folder of the media files");
        return false;
    }
    const bool made = makeMissing(folder);
    close(lock);
    return made;
}

}  // namespace
}  // namespace kelp::test

int main() {
    return kelp::test::makeMedia() ? 0 : 1;
}
