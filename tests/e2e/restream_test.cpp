#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/child_process.h"
#include "e2e/free_ports.h"
#include "e2e/media.h"
#include "kelp_player/udp_transport.h"
#include "output/media_reader.h"

// The restream program as somebody at a terminal uses it, with receivers of other makers at the other end.

namespace kelp {
namespace {

using test::ChildProcess;
using test::EncodedVideo;
using test::TempFolder;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr int kFrames = 40;  // 1.6 s

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class Restream : public testing::Test {
protected:
    static void SetUpTestSuite() {
        folder_ = new TempFolder;
        for (const char* name : {"plain.ts", "plain.mp4"}) {
            test::outputOf({"ffmpeg",    "-nostdin",
                            "-v",        "error",
                            "-f",        "lavfi",
                            "-i",        "testsrc2=size=160x120:rate=25",
                            "-f",        "lavfi",
                            "-i",        "sine",
                            "-frames:v", std::to_string(kFrames),
                            "-shortest", "-c:v",
                            "libx264",   "-preset",
                            "veryfast",  "-pix_fmt",
                            "yuv420p",   "-bf",
                            "0",         "-g",
                            "10",        "-threads",
                            "1",         "-c:a",
                            "aac",       folder_->path(name)});
        }
        source_ = new EncodedVideo(test::readVideo(folder_->path("plain.mp4")));
    }
    static void TearDownTestSuite() {
        delete source_;
        delete folder_;
    }

    void SetUp() override { ASSERT_EQ(source_->pictures.size(), static_cast<size_t>(kFrames)); }

    // The program with these arguments; its error output lies in errorFile_.
    std::vector<std::string> command(const std::vector<std::string>& arguments) {
        std::vector<std::string> words = {"sh", "-c", "exec \"$@\" 2>'" + errorFile_ + "'", "sh", KELP_RESTREAM};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return words;
    }
    int run(const std::vector<std::string>& arguments) {
        ChildProcess program(command(arguments));
        std::string line;
        while (!(line = program.readLine()).empty()) {
            output_ += line + "\n";
        }
        return program.wait();
    }
    std::string errors() { return readFile(errorFile_); }

    // The recorded pictures are the source's first ones, byte for byte.
    static void expectPictures(const std::string& path, int count) {
        const auto recorded = test::readVideo(path);
        ASSERT_TRUE(recorded.opened) << path;
        ASSERT_EQ(recorded.pictures.size(), static_cast<size_t>(count));
        for (size_t i = 0; i < recorded.pictures.size(); ++i) {
            EXPECT_TRUE(recorded.pictures[i] == source_->pictures[i]) << "picture " << i;
        }
    }

    static TempFolder* folder_;    // of the sources
    static EncodedVideo* source_;  // their picture
    TempFolder scratch_;
    std::string errorFile_ = scratch_.path("errors");
    std::string output_;
};

TempFolder* Restream::folder_ = nullptr;
EncodedVideo* Restream::source_ = nullptr;

TEST_F(Restream, WritesAFileThatHoldsTheSourcesVideo) {
    for (const char* name : {"plain.mp4", "plain.ts"}) {
        SCOPED_TRACE(name);
        const std::string path = scratch_.path("out.mp4");
        EXPECT_EQ(run({"--fast", folder_->path(name), path}), 0) << errors();
        EXPECT_EQ(errors(), "");
        EXPECT_THAT(output_, MatchesRegex("(\\[#*\\.*\\] 00:0[01] / 00:01  [0-9]+ frames  [0-9]+ KiB(  done)?\n)+"));
        EXPECT_THAT(output_, HasSubstr("  40 frames  "));
        expectPictures(path, kFrames);
        EXPECT_EQ(test::readVideo(path).frames[1].pts, 3600);
        output_.clear();
    }
}

TEST_F(Restream, PublishesWhatTheContainerHolds) {
    const std::string path = scratch_.path("out.mp4");
    const EncodedVideo source = test::readVideo(test::mediaPath("vp9_aac.mkv"));
    EXPECT_EQ(run({"--fast", test::mediaPath("vp9_aac.mkv"), path}), 0) << errors();
    const EncodedVideo written = test::readVideo(path);
    EXPECT_EQ(written.codecId, source.codecId);
    EXPECT_FALSE(written.pictures.empty());
    EXPECT_EQ(written.pictures, source.pictures);
}

TEST_F(Restream, PublishesTheVideoThatIsAskedFor) {
    const std::string path = scratch_.path("out.mp4");
    const std::string two = scratch_.path("two.mkv");
    test::outputOf({"ffmpeg", "-nostdin", "-v", "error", "-i", folder_->path("plain.mp4"), "-map", "0:v", "-map", "0:v",
                    "-c", "copy", "-c:v:1", "mpeg4", "-s:v:1", "80x60", two});
    EXPECT_EQ(run({"--fast", "--video-track", "1", two, path}), 0) << errors();
    const EncodedVideo written = test::readVideo(path);
    EXPECT_EQ(written.width, 80);
    EXPECT_EQ(written.pictures.size(), static_cast<size_t>(kFrames));
}

TEST_F(Restream, PublishesToAListeningFfmpegCommandAtTheSourcesPace) {
    const int port = test::freePortPair(SOCK_STREAM);
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/live";
    const std::string path = scratch_.path("recorded.h264");
    ChildProcess server({"ffmpeg", "-nostdin", "-v", "fatal", "-rtsp_flags", "listen", "-i", url, "-c", "copy", path});
    ASSERT_TRUE(test::waitForPort(SOCK_STREAM, port));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(run({folder_->path("plain.mp4"), url}), 0) << errors();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds((kFrames - 1) * 40));
    EXPECT_EQ(server.wait(), 0);
    expectPictures(path, kFrames);
}

TEST_F(Restream, PublishesToAGStreamerServer) {
    const std::string path = scratch_.path("recorded.h264");
    ChildProcess server({"/usr/bin/python3", KELP_RTSP_RECORDER, path});
    const std::string port = server.readLine(60000);
    ASSERT_FALSE(port.empty());
    EXPECT_EQ(run({"--fast", folder_->path("plain.ts"), "rtsp://127.0.0.1:" + port + "/live"}), 0) << errors();
    EXPECT_EQ(server.wait(), 0);
    expectPictures(path, kFrames);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// Puts together what comes.
class Collector : public UdpReceiverObserver {
public:
    void onUdpData(const unsigned char* data, int size) override {
        std::lock_guard lock(mutex_);
        bytes_.append(reinterpret_cast<const char*>(data), static_cast<size_t>(size));
        largest_ = std::max(largest_, size);
        came_.notify_all();
    }
    std::string waitFor(size_t size) {
        std::unique_lock lock(mutex_);
        came_.wait_for(lock, std::chrono::seconds(30), [&] { return bytes_.size() >= size; });
        return bytes_;
    }
    int largest() {
        std::lock_guard lock(mutex_);
        return largest_;
    }

private:
    std::mutex mutex_;  // guards what follows
    std::condition_variable came_;
    std::string bytes_;
    int largest_ = 0;
};

#pragma GCC diagnostic pop

TEST_F(Restream, SendsTheBytesOfATransportStreamAsDatagrams) {
    Collector collector;
    UdpReceiver* receiver = UdpReceiver::create();
    receiver->init(&collector);
    const int port = test::freePortPair(SOCK_DGRAM);
    ASSERT_TRUE(receiver->startReceiver(static_cast<unsigned short>(port)));
    const std::string expected = readFile(folder_->path("plain.ts"));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(run({"--udp", "localhost:" + std::to_string(port), folder_->path("plain.ts")}), 0) << errors();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000)) << "at the stream's pace";
    EXPECT_TRUE(collector.waitFor(expected.size()) == expected);
    EXPECT_EQ(collector.largest(), 7 * 188);
    EXPECT_THAT(output_, MatchesRegex("(\\[\\.*\\] 00:0[01] / 00:00  [0-9]+ datagrams  [0-9]+ KiB(  done)?\n)+"));
    receiver->stopReceiver();
    UdpReceiver::destroy(receiver);
}

TEST_F(Restream, IsReceivedAsATransportStreamByTheFfmpegCommand) {
    constexpr int kReceived = 20;
    const int port = test::freePortPair(SOCK_DGRAM);
    const std::string address = "127.0.0.1:" + std::to_string(port);
    const std::string path = scratch_.path("received.h264");
    ChildProcess receiver({"ffmpeg", "-nostdin", "-v", "fatal", "-analyzeduration", "500000", "-i", "udp://" + address,
                           "-map", "0:v", "-frames:v", std::to_string(kReceived), "-c", "copy", path});
    ASSERT_TRUE(test::waitForPort(SOCK_DGRAM, port));
    // Again and again: the receiver looks at more of the stream than it takes.
    for (int i = 0; i < 20 && receiver.running(); ++i) {
        ASSERT_EQ(run({"--udp", address, folder_->path("plain.ts")}), 0) << errors();
    }
    EXPECT_EQ(receiver.wait(), 0);
    expectPictures(path, kReceived);
}

TEST_F(Restream, EndsTheFileWhenItIsInterrupted) {
    const std::string path = scratch_.path("out.mp4");
    ChildProcess program(command({folder_->path("plain.mp4"), path}));
    EXPECT_THAT(program.readLine(), HasSubstr("  1 frames  "));
    program.interrupt();
    EXPECT_EQ(program.wait(), 0) << errors();
    const auto video = test::readVideo(path);
    EXPECT_TRUE(video.opened);
    EXPECT_GE(video.pictures.size(), 1U);
}

TEST_F(Restream, SaysWhatAStreamWithBFramesMeans) {
    const std::string path = scratch_.path("out.mp4");
    EXPECT_EQ(run({"--fast", test::mediaPath("small.mp4"), path}), 0);
    EXPECT_THAT(errors(), HasSubstr("small.mp4 has B frames"));
    EXPECT_EQ(test::readVideo(path).frames.size(), 75U);
}

TEST_F(Restream, FailsWithOneLine) {
    const std::string plain = folder_->path("plain.mp4");
    const int port = test::freePortPair(SOCK_STREAM);
    struct Case {
        std::vector<std::string> arguments;
        std::string line;
    };
    const Case cases[] = {
        {{scratch_.path("missing.mp4"), scratch_.path("out.mp4")}, "missing.mp4: No such file or directory\n"},
        {{test::mediaPath("text.mp4"), scratch_.path("out.mp4")}, "text.mp4: Invalid data found"},
        {{test::mediaPath("tone.mp3"), scratch_.path("out.mp4")}, "tone.mp3: there is no video in it\n"},
        {{test::mediaPath("codecs/ffv1_flac.mkv"), scratch_.path("out.mp4")},
         "out.mp4: open, Error occurred when opening output\n"},
        {{"--video-track", "1", plain, scratch_.path("out.mp4")}, "there is no video of that number in it\n"},
        {{plain, scratch_.path("out.mkv")}, "out.mkv: open, error filePath "},
        {{plain, scratch_.path("missing/out.mp4")}, "out.mp4: open, Could not open output URL "},
        {{plain, "rtsp://127.0.0.1:" + std::to_string(port) + "/live"},
         "/live: open, Error occurred when opening output\n"},
        {{"--udp", "127.0.0.1:9", plain}, "plain.mp4: it is no MPEG transport stream\n"},
        {{"--udp", "127.0.0.1:9", scratch_.path("missing.ts")}, "missing.ts: no such file\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(run(c.arguments), 1);
        EXPECT_THAT(errors(), StartsWith("restream: "));
        EXPECT_THAT(errors(), HasSubstr(c.line));
        EXPECT_THAT(errors(), testing::EndsWith("\n"));
        EXPECT_EQ(errors().find('\n'), errors().size() - 1) << errors();
    }
}

TEST_F(Restream, ShowsItsUsage) {
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_THAT(output_, StartsWith("usage: restream "));
    const std::vector<std::string> mistakes[] = {{},
                                                 {"a"},
                                                 {"a", "b", "c"},
                                                 {"--nonsense", "a", "b"},
                                                 {"--udp"},
                                                 {"--udp", "127.0.0.1:9"},
                                                 {"--udp", "127.0.0.1:9", "a", "b"},
                                                 {"--udp", "127.0.0.1", "a"},
                                                 {"--udp", "host:9", "a"},
                                                 {"--udp", "127.0.0.1:0", "a"},
                                                 {"--udp", "127.0.0.1:65536", "a"},
                                                 {"--udp", "127.0.0.1:9x", "a"},
                                                 {"--option", "a", "b"},
                                                 {"--option", "=b", "a", "b"}};
    for (const auto& arguments : mistakes) {
        EXPECT_EQ(run(arguments), 2);
        EXPECT_THAT(errors(), MatchesRegex("restream: [^\n]+\nusage: (.|\n)*"));
    }
}

}  // namespace
}  // namespace kelp
