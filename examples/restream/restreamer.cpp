#include "restreamer.h"

#include <csignal>
#include <cstdio>
#include <mutex>
#include <utility>

#include "kelp_player/log.h"
#include "kelp_player/stream_muxer.h"
#include "kelp_player/udp_transport.h"
#include "transport_stream.h"
#include "video_source.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

constexpr int64_t kTicksPerSecond = 90000;
constexpr char kWaitForServerUs[] = "10000000";

volatile std::sig_atomic_t g_interrupted = 0;

void onInterrupt(int) {
    g_interrupted = 1;
}

bool interrupted() {
    return g_interrupted != 0;
}

// The library's last error, without what stands in front of the message.
class LastError {
public:
    LastError() {
        kelp::Log::SetLevel(1);
        kelp::Log::SetLogCallback([this](const char* line) { take(line); });
    }
    LastError(const LastError&) = delete;
    LastError& operator=(const LastError&) = delete;
    ~LastError() { kelp::Log::SetLogCallback(nullptr); }

    std::string text() {
        std::lock_guard lock(mutex_);
        return text_;
    }

private:
    void take(const std::string& line) {
        const auto tag = line.find("]: ");
        const std::string message = tag == std::string::npos ? line : line.substr(tag + 3);
        std::lock_guard lock(mutex_);
        text_ = message.substr(0, message.find('\n'));
    }

    std::mutex mutex_;
    std::string text_;  // guarded by mutex_
};

std::string amountText(int64_t bytes) {
    return std::to_string(bytes / 1024) + " KiB";
}

}  // namespace

Restreamer::Restreamer(Options options) : options_(std::move(options)) {
    av_log_set_level(AV_LOG_QUIET);
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
}

int Restreamer::run() {
    return (options_.udpAddress.empty() ? publish() : sendDatagrams()) ? 0 : 1;
}

bool Restreamer::publish() {
    VideoSource source(interrupted);
    std::string error;
    if (!source.open(options_.source, options_.videoTrack, error)) {
        return interrupted() || fail(options_.source, error);
    }
    LastError lastError;
    kelp::StreamMuxer muxer;
    muxer.setOption("timeout", kWaitForServerUs);
    muxer.setOption("use_editlist", "0");  // of an MP4 file: players show its last frame too
    for (const auto& [key, value] : options_.settings) {
        muxer.setOption(key.c_str(), value.c_str());
    }
    if (!muxer.open(options_.destination, source.codecInfo(), kTicksPerSecond)) {
        return fail(options_.destination, lastError.text());
    }
    if (source.reordered()) {
        std::fprintf(stderr, "restream: %s has B frames, which can't be published in full: some players may stutter\n",
                     options_.source.c_str());
    }
    muxer.start();
    int frames = 0;
    int64_t bytes = 0;
    const auto show = [&](bool last) {
        progress_.show(source.timeUs() / 1000, source.durationMs(),
                       std::to_string(frames) + " frames  " + amountText(bytes), last ? "  done" : "");
    };
    while (!interrupted() && source.next(error)) {
        keepPace(source.timeUs());
        if (!muxer.outputFrame(source.data(), source.size(), source.timeUs(), source.keyFrame())) {
            progress_.finish();
            return fail(options_.destination, lastError.text());
        }
        ++frames;
        bytes += source.size();
        show(/*last=*/false);
    }
    muxer.stop();
    muxer.close();
    show(/*last=*/true);
    progress_.finish();
    if (!lastError.text().empty()) {
        return fail(options_.destination, lastError.text());
    }
    return error.empty() || fail(options_.source, error);
}

bool Restreamer::sendDatagrams() {
    TransportStream source;
    std::string error;
    if (!source.open(options_.source, error)) {
        return fail(options_.source, error);
    }
    kelp::UdpSender sender;
    if (!sender.startSender(options_.udpAddress, options_.udpPort)) {
        return fail(options_.udpAddress, "no socket");
    }
    int datagrams = 0;
    int64_t bytes = 0;
    bool sent = true;
    const auto show = [&](bool last) {
        progress_.show(source.clockUs() / 1000, 0, std::to_string(datagrams) + " datagrams  " + amountText(bytes),
                       last ? "  done" : "");
    };
    while (sent && !interrupted() && source.next()) {
        keepPace(source.clockUs());
        sent = sender.send(source.data(), source.size()) == source.size();
        ++datagrams;
        bytes += source.size();
        show(/*last=*/false);
    }
    sender.stopSender();
    show(/*last=*/true);
    progress_.finish();
    return sent || fail(options_.udpAddress, "a datagram couldn't be sent");
}

void Restreamer::keepPace(int64_t timeUs) {
    if (!options_.fast) {
        pace_.waitFor(timeUs, [] { return !interrupted(); });
    }
}

bool Restreamer::fail(const std::string& name, const std::string& why) {
    std::fprintf(stderr, "restream: %s: %s\n", name.c_str(), why.c_str());
    return false;
}
