// Loses a camera again and again, and writes down how a managed player gets over it.
//
//   losses [N] [--interval MS]
//
// N losses (200), by turns: the camera's server is killed, falls silent, refuses connections for a while, answers half;
// it comes back with the same streams, others, or without sound. Every fifth time the player is paused while it waits.
// Each time it is to come back in its state without a word to the host. The program prints how long the first picture
// took from the server's return, and fails if a loss wasn't got over, the median is above the interval and 1.5 s, or
// descriptors, threads or the heap have grown.

#include <arpa/inet.h>
#include <malloc.h>
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
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "e2e/managed_playback.h"
#include "e2e/media.h"
#include "e2e/rtsp_server.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using namespace kelp;
using namespace kelp::test;
using Clock = std::chrono::steady_clock;

constexpr int kLimitMs = 60000;
constexpr int kMedianOverIntervalMs = 1500;
constexpr long kHeapKbAllowed = 1024;
constexpr std::array<const char*, 4> kKinds = {"killed", "silent", "refused", "half answered"};
constexpr std::array<const char*, 3> kStreams = {"small.mp4", "numbers_video.mp4", "hevc.ts"};

void pauseFor(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

int entriesOf(const char* folder) {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator(folder), {}));
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

struct Holdings {
    int descriptors = entriesOf("/proc/self/fd");
    int threads = entriesOf("/proc/self/task");
    long heapKb = 0;

    Holdings() {
        malloc_trim(0);
        heapKb = static_cast<long>((mallinfo2().uordblks + mallinfo2().hblkhd) / 1024);
    }
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
            return complain("the camera isn't played", 0);
        }
        Holdings early;
        for (int i = 0; i < count; ++i) {
            if (!lose(i)) {
                return false;
            }
            // With the streams of the last one: what they take isn't the same.
            const int streams = static_cast<int>(kStreams.size());
            if (i <= std::max(count / 4, streams) && i % streams == (count - 1) % streams) {
                early = Holdings();
            }
        }
        const Holdings late;
        std::printf("losses: %d descriptors, %d threads, %ld KB of heap at first; %d, %d, %ld at last\n",
                    early.descriptors, early.threads, early.heapKb, late.descriptors, late.threads, late.heapKb);
        std::vector<int> all;
        for (size_t kind = 0; kind < kKinds.size(); ++kind) {
            print(kKinds[kind], returnMs_[kind]);
            all.insert(all.end(), returnMs_[kind].begin(), returnMs_[kind].end());
        }
        print("all", all);
        const bool isQuick = all[all.size() / 2] <= intervalMs_ + kMedianOverIntervalMs;
        const bool isFlat = late.descriptors <= early.descriptors && late.threads <= early.threads + 1 &&
                            late.heapKb <= early.heapKb + kHeapKbAllowed;
        return (isQuick || complain("the median is too long", count)) && (isFlat || complain("it grows", count));
    }

private:
    static bool complain(const char* what, int loss) {
        std::fprintf(stderr, "losses: %s, at loss %d\n", what, loss);
        return false;
    }

    static void print(const char* kind, std::vector<int>& times) {
        std::ranges::sort(times);
        if (!times.empty()) {
            std::printf("losses: %-14s %3zu, from the server's return to the first picture %d to %d ms, median %d\n",
                        kind, times.size(), times.front(), times.back(), times[times.size() / 2]);
        }
    }

    bool lose(int number) {
        const size_t kind = static_cast<size_t>(number) % kKinds.size();
        const bool isPaused = number % 5 == 4;
        if (kind == 1) {
            server_.suspend();
            pauseFor(1500);
        }
        server_.kill();
        pauseFor(kind == 2 ? 1500 : 200);
        if (kind == 3) {
            const HalfServer half(server_.port());
            pauseFor(600);
        }
        if (isPaused) {
            player_.pause();
        }
        // A paused RTSP source isn't read, so there is no new picture until it is resumed.
        const std::string sign = isPaused ? "started" : "picture";
        const int before = playback_.count(sign);
        server_.start({{"camera", mediaPath(kStreams[static_cast<size_t>(number) % kStreams.size()])}});
        const auto returned = Clock::now();
        if (!playback_.waitFor(sign, before + 1, kLimitMs)) {
            return complain("it doesn't come back", number);
        }
        if (!isPaused) {
            const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - returned);
            returnMs_[kind].push_back(static_cast<int>(took.count()));
        }
        playback_.waitForWorker();
        if (playback_.state() != (isPaused ? PLAYER_STATE_PAUSED : PLAYER_STATE_STARTED)) {
            return complain("it comes back in another state", number);
        }
        Log::SetLogCallback([](const char*) {});  // which the look at the state has taken
        player_.resume();
        if (!playback_.sink().waitFor(playback_.sink().count() + 10, kLimitMs)) {
            return complain("it doesn't play on", number);
        }
        return playback_.count("failed") + playback_.count("completed") == 0 ||
               complain("the host heard of it", number);
    }

    const int intervalMs_;
    RtspServer server_{{{"camera", mediaPath("small.mp4")}}};
    ManagedPlayback playback_;
    TarnPlayer& player_ = playback_.player();
    std::array<std::vector<int>, kKinds.size()> returnMs_;
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
