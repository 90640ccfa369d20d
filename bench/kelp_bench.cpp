// Prints one table: what playing a file costs, beside what decoding it costs without a player; and one of what the UDP
// classes carry.
//
// usage: kelp_bench [FILE]. Without FILE a clip of 20 s is made with the ffmpeg command: 1920x1080 at 30 frames per
// second, H.264 with B-frames, AAC. Every row runs in a process of its own, so that its memory is its own.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelp_player/frame_sink.h"
#include "kelp_player/kelp_player.h"
#include "kelp_player/log.h"
#include "udp_bench.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

namespace {

double nowMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

// What a row's process tells its parent.
struct Outcome {
    bool ok = false;
    int frames = 0;
    double wallMs = 0;
    double preparedMs = 0;    // load to onPrepared
    double firstFrameMs = 0;  // load to the first picture
    double stopMs = 0;
};

struct Row {
    std::string name;
    Outcome outcome;
    double cpuSeconds = 0;
    double peakMiB = 0;
};

// What a bare decode loop does beside decoding.
enum class Bare {
    Decode,     // throws the pictures away, as fast as it goes
    Copy,       // copies each picture once into a block of its own
    PacedCopy,  // the same, each picture at its time: what a player can reach at best
};

// Reads and decodes both streams.
Outcome bareDecode(const std::string& path, Bare how) {
    Outcome outcome;
    const double begin = nowMs();
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0 ||
        avformat_find_stream_info(format, nullptr) < 0) {
        return outcome;
    }
    AVRational rate{30, 1};
    std::vector<AVCodecContext*> contexts(format->nb_streams, nullptr);
    for (unsigned int i = 0; i < format->nb_streams; ++i) {
        const AVCodec* codec = avcodec_find_decoder(format->streams[i]->codecpar->codec_id);
        if (codec == nullptr) {
            continue;
        }
        contexts[i] = avcodec_alloc_context3(codec);
        avcodec_parameters_to_context(contexts[i], format->streams[i]->codecpar);
        if (codec->type == AVMEDIA_TYPE_VIDEO && format->streams[i]->avg_frame_rate.num > 0) {
            rate = format->streams[i]->avg_frame_rate;
        }
        contexts[i]->thread_count = codec->type == AVMEDIA_TYPE_VIDEO ? 4 : 1;
        if (avcodec_open2(contexts[i], codec, nullptr) < 0) {
            return outcome;
        }
    }
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    std::vector<uint8_t> picture;
    const auto drain = [&](AVCodecContext* context) {
        while (avcodec_receive_frame(context, frame) >= 0) {
            if (context->codec_type != AVMEDIA_TYPE_VIDEO) {
                continue;
            }
            ++outcome.frames;
            if (how == Bare::Decode) {
                continue;
            }
            const auto pixels = static_cast<AVPixelFormat>(frame->format);
            picture.resize(static_cast<size_t>(av_image_get_buffer_size(pixels, frame->width, frame->height, 1)));
            av_image_copy_to_buffer(picture.data(), static_cast<int>(picture.size()), frame->data, frame->linesize,
                                    pixels, frame->width, frame->height, 1);
            if (how == Bare::PacedCopy) {
                const double dueMs = 1000.0 * (outcome.frames - 1) * rate.den / rate.num;
                std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(begin + dueMs - nowMs()));
            }
        }
    };
    while (av_read_frame(format, packet) >= 0) {
        if (AVCodecContext* context = contexts[static_cast<size_t>(packet->stream_index)]) {
            avcodec_send_packet(context, packet);
            drain(context);
        }
        av_packet_unref(packet);
    }
    for (AVCodecContext*& context : contexts) {
        if (context != nullptr) {
            avcodec_send_packet(context, nullptr);
            drain(context);
            avcodec_free_context(&context);
        }
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avformat_close_input(&format);
    outcome.wallMs = nowMs() - begin;
    outcome.ok = true;
    return outcome;
}

class Host final : public kelp::KelpPlayerObserver, public kelp::ExternFrameSink {
public:
    Outcome outcome;

    bool waitFor(const bool& flag) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::minutes(5), [&] { return flag || failed_; });
        return flag && !failed_;
    }

    void onVideoSizeUpdated(std::shared_ptr<kelp::KelpPlayer>, int, int, int) override {}
    void onPrepared(std::shared_ptr<kelp::KelpPlayer>, bool, bool) override { set(prepared_); }
    void onFailed(std::shared_ptr<kelp::KelpPlayer>, int, int) override { set(failed_); }
    void onFirstPacket(std::shared_ptr<kelp::KelpPlayer>, int) override {}
    void onFirstVideoFrame(std::shared_ptr<kelp::KelpPlayer>, int) override {}
    void onFirstAudioFrame(std::shared_ptr<kelp::KelpPlayer>, int) override {}
    void onCompleted(std::shared_ptr<kelp::KelpPlayer>) override { set(completed_); }
    void onDurationUpdated(std::shared_ptr<kelp::KelpPlayer>, int) override {}

    void onVideoSize(int, int, int) override {}
    bool onVideoFrame(int, int64_t pts, uint8_t**, int*, int, int64_t) override {
        if (outcome.frames == 0) {
            firstFrameAt_ = nowMs();
        }
        outcome.frames += pts != lastPts_;
        lastPts_ = pts;
        return true;
    }

    void play(const std::string& path) {
        const double begin = nowMs();
        auto player = std::make_shared<kelp::KelpPlayer>();
        if (!player->init(this)) {
            return;
        }
        player->setOption("log_level", "none");
        player->setAVSyncMode(kelp::SYNC_MASTER_AUDIO);
        player->addWindow(kelp::WINDOW_TYPE_EXTERN, static_cast<kelp::ExternFrameSink*>(this), 0, 0);
        player->loadFileAsync(path.c_str(), 0);
        if (waitFor(prepared_)) {
            outcome.preparedMs = nowMs() - begin;
            outcome.ok = player->play() && waitFor(completed_);
        }
        outcome.firstFrameMs = firstFrameAt_ - begin;
        const double stopping = nowMs();
        player->stop();
        outcome.stopMs = nowMs() - stopping;
        player->release();
        outcome.wallMs = nowMs() - begin;
    }

private:
    void set(bool& flag) {
        std::lock_guard lock(mutex_);
        flag = true;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool failed_ = false;
    int64_t lastPts_ = INT64_MIN;
    double firstFrameAt_ = 0;

public:
    bool prepared_ = false;
    bool completed_ = false;
};

Outcome playback(const std::string& path) {
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    kelp::Log::SetLogCallback([](const char*) {});
    Host host;
    host.play(path);
    return host.outcome;
}

// Runs `work` in a child process and measures that.
template <class Work>
Row measure(const std::string& name, Work work) {
    Row row;
    row.name = name;
    int ends[2];
    if (pipe(ends) != 0) {
        return row;
    }
    const pid_t child = fork();
    if (child == 0) {
        const Outcome outcome = work();
        const bool told = write(ends[1], &outcome, sizeof outcome) == sizeof outcome;
        _exit(told ? 0 : 1);
    }
    close(ends[1]);
    if (read(ends[0], &row.outcome, sizeof row.outcome) != sizeof row.outcome) {
        row.outcome.ok = false;
    }
    close(ends[0]);
    rusage usage{};
    wait4(child, nullptr, 0, &usage);
    const auto seconds = [](const timeval& time) { return static_cast<double>(time.tv_sec) + time.tv_usec / 1e6; };
    row.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    row.peakMiB = static_cast<double>(usage.ru_maxrss) / 1024;
    return row;
}

}  // namespace

int main(int argc, char** argv) {
    std::string path = argc > 1 ? argv[1] : "build/bench_everyday.mp4";
    if (argc <= 1 && access(path.c_str(), R_OK) != 0) {
        const std::string command =
            "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=30:duration=20 "
            "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=20 -ac 2 "
            "-c:v libx264 -preset veryfast -bf 2 -g 60 -pix_fmt yuv420p -c:a aac -b:a 128k " +
            path;
        if (std::system(command.c_str()) != 0) {
            return 1;
        }
    }
    av_log_set_level(AV_LOG_QUIET);
    std::vector<Row> rows;
    rows.push_back(measure("bare decode, 4 threads", [&] { return bareDecode(path, Bare::Decode); }));
    rows.push_back(measure("... and one copy", [&] { return bareDecode(path, Bare::Copy); }));
    rows.push_back(measure("... at the file's pace", [&] { return bareDecode(path, Bare::PacedCopy); }));
    rows.push_back(measure("playback into a frame sink", [&] { return playback(path); }));

    std::printf("| %-28s | frames | CPU s | x bare | peak MiB | wall s | prepared ms | first picture ms | stop ms |\n",
                "what");
    std::printf("| %-28s | -----: | ----: | -----: | -------: | -----: | ----------: | ---------------: | ------: |\n",
                "---");
    bool ok = true;
    for (const Row& row : rows) {
        const Outcome& outcome = row.outcome;
        ok = ok && outcome.ok;
        std::printf("| %-28s | %6d | %5.2f | %6.2f | %8.0f | %6.2f | %11.0f | %16.0f | %7.0f |%s\n", row.name.c_str(),
                    outcome.frames, row.cpuSeconds, row.cpuSeconds / rows.front().cpuSeconds, row.peakMiB,
                    outcome.wallMs / 1000, outcome.preparedMs, outcome.firstFrameMs, outcome.stopMs,
                    outcome.ok ? "" : " FAILED");
    }
    ok = udpBench() && ok;
    return ok ? 0 : 1;
}
