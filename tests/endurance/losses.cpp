// Loses a camera again and again, and writes down how a managed player gets over it.
//
//   losses [N] [--interval MS]
//
// N losses (200), by turns of all kinds in all states. The camera's server is killed, closes its connections, falls
// silent, refuses connections for a while, answers half; it comes back with the same streams, others, or without sound.
// Meanwhile the player plays, is paused, is asked to seek, or is recorded. Each time it is to come back in its state
// without a word to the host, and a recording goes on in a new file. The program prints how long the first picture took
// from the server's return, and fails if a loss wasn't got over, the median is above the interval and 1.5 s, or
// descriptors, threads or the heap have grown, as far as there are enough losses to tell.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "e2e/managed_playback.h"
#include "e2e/media.h"
#include "e2e/rtsp_server.h"
#include "endurance/holdings.h"
#include "kelp_player/log.h"
#include "kelp_player/recorder.h"
#include "support/temp_files.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using namespace kelp;
using namespace kelp::test;
using Clock = std::chrono::steady_clock;

constexpr int kLimitMs = 300000;  // whoever stops the program for a while has it go on afterwards
constexpr int kReported = 20;     // losses for each line on the way
constexpr int kMedianOverIntervalMs = 1500;
constexpr long kHeapKbAllowed = 1024;
constexpr size_t kHeldAtLeast = 5;  // moments, so that none is in the second quarter and in the last
constexpr int kRecordedMs = 20000;  // at most until the first key frame

enum Kind { Killed, Closed, Silent, Refused, HalfAnswered };
enum State { Playing, Paused, Seeking, Recording };
// Numbers without a common divisor: each kind meets each state and all streams within 60 losses.
constexpr std::array<const char*, 5> kKinds = {"killed", "closed", "silent", "refused", "half answered"};
constexpr std::array<const char*, 4> kStates = {"playing", "paused", "seeking", "recording"};
constexpr std::array<const char*, 3> kStreams = {"small.mp4", "numbers_video.mp4", "hevc.ts"};

void pauseFor(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Listens on a port, begins an answer to whoever connects, and leaves them.
class HalfServer {
public:
    explicit HalfServer(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int yes = 1;
        setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        if (bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(socket_, 8) != 0) {
            std::perror("losses: half server");
        }
        thread_ = std::thread([this] {
            while (!stop_) {
                pollfd waiting{socket_, POLLIN, 0};
                if (poll(&waiting, 1, 20) > 0) {
                    const int peer = accept(socket_, nullptr, nullptr);
                    constexpr std::string_view kHalf = "RTSP/1.0 200 OK\r\nCSeq: 1\r\nPubl";
                    [[maybe_unused]] const auto sent = send(peer, kHalf.data(), kHalf.size(), MSG_NOSIGNAL);
                    pauseFor(50);
                    close(peer);
                }
            }
        });
    }
    ~HalfServer() {
        stop_ = true;
        thread_.join();
        close(socket_);
    }
    HalfServer(const HalfServer&) = delete;
    HalfServer& operator=(const HalfServer&) = delete;

private:
    const int socket_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Counts the files of recordings, and takes them away.
class Files final : public RecorderObserver {
public:
    virtual ~Files() = default;
    void onFileBegun(const std::string&) override { ++begun; }
    void onFileEnded(const std::string& path, int64_t durationMs) override {
        empty += durationMs <= 0;
        std::filesystem::remove(path);
    }
    void onRecordingFailed(const std::string&, const std::string&) override { ++failed; }

    bool waitForBegun(int count) const {
        for (int ms = 0; ms < kRecordedMs && begun < count; ms += 10) {
            pauseFor(10);
        }
        return begun >= count;
    }

    std::atomic<int> begun{0};
    std::atomic<int> empty{0};
    std::atomic<int> failed{0};
};

class Losses {
public:
    explicit Losses(int intervalMs) : intervalMs_(intervalMs) {
        player_.setOption("preset", "recommended");
        player_.setOption("timeout", "1000000");
        player_.setOption("retry_when_failed", std::to_string(intervalMs).c_str());
        player_.enableHwDecoder(false, HW_DECODE_NONE);
        player_.setAVSyncMode(SYNC_MASTER_VIDEO);
        Log::SetLogCallback([](const char*) {});
        av_log_set_level(AV_LOG_QUIET);
    }

    bool run(int count) {
        if (!playback_.open(server_.url("camera")) || !player_.start() || !playback_.waitFor("picture", 1, kLimitMs)) {
            return fail("the camera isn't played");
        }
        std::vector<size_t> streamsAfter;
        for (int i = 0; i < count; ++i) {
            streamsAfter.push_back(changesStreams(i) || i == 0 ? static_cast<size_t>(i) % kStreams.size()
                                                               : streamsAfter.back());
        }
        std::vector<Holdings> held;
        for (int i = 0; i < count; ++i) {
            if (!lose(i)) {
                return false;
            }
            playback_.forget();
            if ((i + 1) % kReported == 0) {
                std::printf("losses: %d of %d\n", i + 1, count);
                std::fflush(stdout);
            }
            // With the streams of the last one: what they take isn't the same.
            if (streamsAfter[static_cast<size_t>(i)] == streamsAfter.back()) {
                held.emplace_back();
            }
        }
        const bool isComparable = held.size() >= kHeldAtLeast;
        const size_t quarter = held.size() / 4;
        const Holdings early = middleOf({held.begin() + quarter, held.begin() + 2 * quarter + 1});
        const Holdings late = middleOf({held.end() - quarter - 1, held.end()});
        std::printf("losses: %d descriptors, %d threads, %ld KB of heap at first; %d, %d, %ld at last\n",
                    early.descriptors, early.threads, early.heapKb, late.descriptors, late.threads, late.heapKb);
        std::vector<int> all;
        for (size_t kind = 0; kind < kKinds.size(); ++kind) {
            print(kKinds[kind], returnMs_[kind]);
            all.insert(all.end(), returnMs_[kind].begin(), returnMs_[kind].end());
        }
        for (size_t state = 0; state < kStates.size(); ++state) {
            print(kStates[state], stateReturnMs_[state]);
        }
        print("all", all);
        const bool isQuick = all[all.size() / 2] <= intervalMs_ + kMedianOverIntervalMs;
        if (!isComparable) {
            std::printf("losses: too few with the same streams to tell whether it grows\n");
        }
        const bool isFlat =
            !isComparable || (late.descriptors <= early.descriptors && late.threads <= early.threads + 1 &&
                              late.heapKb <= early.heapKb + kHeapKbAllowed);
        return (isQuick || fail("the median is too long")) && (isFlat || fail("it grows"));
    }

private:
    using Moment = Clock::time_point;

    static bool fail(const char* what) {
        std::fprintf(stderr, "losses: %s\n", what);
        return false;
    }
    static bool complain(const char* what, int loss) {
        std::fprintf(stderr, "losses: %s, at loss %d, %s while %s\n", what, loss, kKinds[kindOf(loss)],
                     kStates[stateOf(loss)]);
        return false;
    }

    // The median of each: at one moment some more pictures are held than at another.
    static Holdings middleOf(std::vector<Holdings> moments) {
        Holdings middle;
        const auto take = [&](auto Holdings::*field) {
            const auto at = moments.begin() + static_cast<std::ptrdiff_t>(moments.size() / 2);
            std::ranges::nth_element(moments, at, {}, field);
            middle.*field = (*at).*field;
        };
        take(&Holdings::descriptors);
        take(&Holdings::threads);
        take(&Holdings::heapKb);
        return middle;
    }

    static void print(const char* kind, std::vector<int>& times) {
        std::ranges::sort(times);
        if (!times.empty()) {
            std::printf("losses: %-14s %3zu, from the server's return to the first picture %d to %d ms, median %d\n",
                        kind, times.size(), times.front(), times.back(), times[times.size() / 2]);
        }
    }

    static size_t kindOf(int number) { return static_cast<size_t>(number) % kKinds.size(); }
    static size_t stateOf(int number) { return static_cast<size_t>(number) % kStates.size(); }
    // A server that closes its connections stays; one that is silent goes on, or is another one.
    static bool changesStreams(int number) {
        return kindOf(number) != Closed &&
               (kindOf(number) != Silent || number / static_cast<int>(kKinds.size()) % 2 > 0);
    }

    // Ends the server's service. False if the player doesn't notice.
    bool takeAway(int number) {
        const size_t kind = kindOf(number);
        if (kind == Closed) {
            return true;  // that is over at once
        }
        const int restarts = player_.getStatistics().restarts;
        kind == Silent ? server_.suspend() : server_.kill();
        for (int ms = 0; player_.getStatistics().restarts == restarts; ms += 10) {
            if (ms > kLimitMs) {
                return false;
            }
            pauseFor(10);
        }
        if (kind == Silent && changesStreams(number)) {
            server_.kill();
        }
        pauseFor(kind == Refused ? 1500 : 200);
        if (kind == HalfAnswered) {
            const HalfServer half(server_.port());
            pauseFor(600);
        }
        return true;
    }

    Moment bringBack(int number) {
        const Moment begin = Clock::now();
        if (kindOf(number) == Closed) {
            server_.hangUp();
            return begin;
        }
        if (!changesStreams(number)) {
            server_.proceed();
            return begin;
        }
        server_.start({{"camera", mediaPath(kStreams[static_cast<size_t>(number) % kStreams.size()])}});
        return Clock::now();
    }

    bool lose(int number) {
        const size_t state = stateOf(number);
        const bool isPaused = state == Paused;
        if (state == Recording) {
            files_.begun = 0;
            player_.setPacketSink(&recorder_);
            if (!recorder_.start(folder_.path("camera.mp4")) || !files_.waitForBegun(1)) {
                return complain("it isn't recorded", number);
            }
        }
        if (!takeAway(number)) {
            return complain("it isn't noticed", number);
        }
        if (isPaused) {
            player_.pause();
        }
        if (state == Seeking) {
            player_.seek(1000);  // which a camera can't
        }
        // A paused RTSP source isn't read, so there is no new picture until it is resumed.
        const std::string sign = isPaused ? "started" : "picture";
        const int before = playback_.count(sign);
        const Moment returned = bringBack(number);
        if (isPaused && kindOf(number) == Closed) {
            // Nor is its end met.
            player_.resume();
        }
        if (!playback_.waitFor(sign, before + 1, kLimitMs)) {
            return complain("it doesn't come back", number);
        }
        if (!isPaused) {
            const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - returned);
            returnMs_[kindOf(number)].push_back(static_cast<int>(took.count()));
            stateReturnMs_[state].push_back(static_cast<int>(took.count()));
        }
        playback_.waitForWorker();
        const bool isStillPaused = isPaused && kindOf(number) != Closed;
        if (playback_.state() != (isStillPaused ? PLAYER_STATE_PAUSED : PLAYER_STATE_STARTED)) {
            return complain("it comes back in another state", number);
        }
        Log::SetLogCallback([](const char*) {});  // which the look at the state has taken
        player_.resume();
        if (!playback_.sink().waitFor(playback_.sink().count() + 10, kLimitMs)) {
            return complain("it doesn't play on", number);
        }
        if (state == Recording && !endRecording()) {
            return complain("it isn't recorded on", number);
        }
        return playback_.count("failed") + playback_.count("completed") == 0 ||
               complain("the host heard of it", number);
    }

    // A file from before the loss and one from behind it.
    bool endRecording() {
        const bool isWhole = files_.waitForBegun(2) && recorder_.isRecording();
        recorder_.stop();
        player_.setPacketSink(nullptr);
        return isWhole && files_.failed == 0 && files_.empty == 0;
    }

    const int intervalMs_;
    RtspServer server_{{{"camera", mediaPath("small.mp4")}}};
    const TempFolder folder_;
    Files files_;
    Recorder recorder_{&files_};
    ManagedPlayback playback_;
    TarnPlayer& player_ = playback_.player();
    std::array<std::vector<int>, kKinds.size()> returnMs_;
    std::array<std::vector<int>, kStates.size()> stateReturnMs_;
};

}  // namespace

int main(int argc, char** argv) {
    int count = 200;
    int intervalMs = 200;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--interval" && i + 1 < argc) {
            intervalMs = std::atoi(argv[++i]);
        } else {
            count = std::atoi(argv[i]);
        }
    }
    setenv("SDL_VIDEODRIVER", "dummy", 0);
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    return count > 0 && Losses(intervalMs).run(count) ? 0 : 1;
}
