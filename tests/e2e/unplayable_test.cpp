// Files that none can play: a host that wants all codecs is told so at once, and the log's last error line says why.

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "e2e/free_ports.h"
#include "e2e/media.h"
#include "e2e/playback.h"
#include "support/log_capture.h"
#include "support/temp_files.h"

namespace kelp::test {
namespace {

std::string bytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string replaced(std::string bytes, const std::string& text, const std::string& other) {
    for (size_t at = bytes.find(text); at != std::string::npos; at = bytes.find(text, at + 1)) {
        bytes.replace(at, text.size(), other);
    }
    return bytes;
}

class Unplayable : public testing::Test {
protected:
    // A file of this name, to be played.
    std::string write(const std::string& name, const std::string& bytes) {
        std::ofstream(folder_.path(name), std::ios::binary) << bytes;
        return folder_.path(name);
    }
    // One with H.264 and AAC.
    std::string film(const std::string& name, const std::string& options = "") {
        runFFmpeg(
            "-f lavfi -i testsrc2=size=160x90:rate=25:duration=2 -f lavfi -i sine=duration=2 -c:v libx264 "
            "-pix_fmt yuv420p -c:a aac " +
            options + " " + folder_.path(name));
        return folder_.path(name);
    }

    // Loads the file and plays it, if it can be loaded. It fails within two seconds, with these words in the end.
    void expectFailure(const std::string& path, const std::string& words) {
        EXPECT_THAT(lastLineOf(path), testing::EndsWith(path + " can't be played: " + words + "\n"));
    }
    // The last error line.
    std::string lastLineOf(const std::string& path) {
        SCOPED_TRACE(path);
        Playback playback;
        LogCapture log(1);  // behind the player: the first one of a process sets the level
        playback.player().setOption("preset", "recommended");
        const auto start = std::chrono::steady_clock::now();
        if (playback.open(path)) {
            EXPECT_TRUE(playback.player().play());
        }
        EXPECT_TRUE(playback.waitFor(Happened::Failed, 10000));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        EXPECT_EQ(playback.last(Happened::Failed).a, ERROR_TYPE_STREAM);
        EXPECT_EQ(playback.count(Happened::Completed), 0);
        return log.lines().empty() ? std::string() : log.lines().back();
    }

    TempFolder folder_;
};

TEST_F(Unplayable, AProtectedFile) {
    expectFailure(film("protected.mp4",
                       "-encryption_scheme cenc-aes-ctr -encryption_key "
                       "00112233445566778899aabbccddeeff -encryption_kid "
                       "00112233445566778899aabbccddee00"),
                  "it is protected");
}

TEST_F(Unplayable, AFileOfUnknownCodecs) {
    const std::string unknown = replaced(bytesOf(film("film.mp4", "-an")), "avc1", "zzz1");
    expectFailure(write("unknown.mp4", unknown), "there is no decoder for it");
}

TEST_F(Unplayable, AnEmptyFile) {
    expectFailure(write("empty.mp4", ""), "it is empty");
    expectFailure(write("empty", ""), "it is empty");
}

TEST_F(Unplayable, AFileThatWasCut) {
    const std::string whole = bytesOf(film("film.mp4"));
    expectFailure(write("cut.mp4", whole.substr(0, whole.size() / 2)),
                  "it is damaged or cut off, or of a kind that isn't known");
    // The index is there, and nothing of what it tells.
    const std::string fast = bytesOf(film("fast.mp4", "-movflags faststart"));
    expectFailure(write("index.mp4", fast.substr(0, fast.find("mdat") + 4)), "nothing of it could be decoded");
}

TEST_F(Unplayable, AFileThatIsNoMedia) {
    expectFailure(write("letter.mp4", "This is a letter, and no film.\n"),
                  "it is damaged or cut off, or of a kind that isn't known");
    expectFailure(write("film.srt", "1\n00:00:01,000 --> 00:00:02,000\nHello\n"), "it has neither pictures nor sound");
}

TEST_F(Unplayable, WhatTheSystemHasWordsFor) {
    EXPECT_THAT(lastLineOf(folder_.path("nowhere.mp4")), testing::HasSubstr("No such file or directory"));
    EXPECT_THAT(lastLineOf(folder_.path("")), testing::HasSubstr("Is a directory"));
    const std::string server = "http://127.0.0.1:" + std::to_string(freePortPair(SOCK_STREAM)) + "/film.mp4";
    EXPECT_THAT(lastLineOf(server), testing::HasSubstr("Connection refused"));
    EXPECT_THAT(lastLineOf("nothing://film.mp4"), testing::HasSubstr("Protocol not found"));
}

TEST_F(Unplayable, AFileWhoseBytesMeanNothing) {
    std::string damaged = bytesOf(film("film.mp4", "-an"));
    const size_t from = damaged.find("mdat") + 4;
    for (size_t i = from; i < damaged.rfind("moov") - 4; ++i) {
        damaged[i] = static_cast<char>(0xAA);
    }
    expectFailure(write("damaged.mp4", damaged), "nothing of it could be decoded");
}

}  // namespace
}  // namespace kelp::test
