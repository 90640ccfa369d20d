// Prints how far behind its source a live source is shown: from the clock that the tests' RTSP server draws into its
// pictures to the frame sink, on the same machine over the loopback address.
//
// usage: live_delay [SECONDS]. Each row is watched for that long, 20 s unless given, after the first 3 s. The first
// row, a loop that reads and decodes and shows at once, is what server, network and decoder need without a player.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "e2e/clock_picture.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/rtsp_server.h"
#include "kelp_player/log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace {

using kelp::test::clockPictureNow;
using kelp::test::readClockPicture;

constexpr int kFps = 25;
constexpr int kWarmUpFrames = 3 * kFps;

// One picture: when it was made and when it was there, in milliseconds.
struct Sight {
    double made = 0;
    double shown = 0;
};

double quantile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[static_cast<size_t>(part * static_cast<double>(values.size() - 1))];
}

void print(const std::string& name, const std::vector<Sight>& sights, size_t wanted) {
    std::vector<double> delays;
    std::vector<double> jitter;  // how much the distance of two pictures differs from that of their making
    for (size_t i = kWarmUpFrames; i < sights.size(); ++i) {
        delays.push_back(sights[i].shown - sights[i].made);
        jitter.push_back(std::abs((sights[i].shown - sights[i - 1].shown) - (sights[i].made - sights[i - 1].made)));
    }
    std::printf("%-34s %9.1f %9.1f %9.1f   %9.1f %9.1f   %4zu of %zu\n", name.c_str(), quantile(delays, 0.5),
                quantile(delays, 0.99), quantile(delays, 1), quantile(jitter, 0.5), quantile(jitter, 0.99),
                sights.size(), wanted);
    std::fflush(stdout);
}

std::vector<Sight> bareLoop(const std::string& url, size_t wanted) {
    std::vector<Sight> sights;
    AVFormatContext* format = nullptr;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "rtsp_transport", "tcp", 0);
    av_dict_set(&options, "fflags", "nobuffer", 0);
    if (avformat_open_input(&format, url.c_str(), nullptr, &options) < 0 ||
        avformat_find_stream_info(format, nullptr) < 0) {
        return sights;
    }
    const int video = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const AVCodecParameters* parameters = format->streams[video]->codecpar;
    AVCodecContext* codec = avcodec_alloc_context3(avcodec_find_decoder(parameters->codec_id));
    avcodec_parameters_to_context(codec, parameters);
    codec->thread_count = 1;
    avcodec_open2(codec, codec->codec, nullptr);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    bool key = false;
    while (sights.size() < wanted && av_read_frame(format, packet) >= 0) {
        key = key || (packet->stream_index == video && (packet->flags & AV_PKT_FLAG_KEY) != 0);
        if (key && packet->stream_index == video && avcodec_send_packet(codec, packet) >= 0) {
            while (avcodec_receive_frame(codec, frame) >= 0) {
                const int64_t made = readClockPicture(frame->data[0], frame->linesize[0], frame->width, frame->height);
                sights.push_back({static_cast<double>(made), static_cast<double>(clockPictureNow())});
            }
        }
        av_packet_unref(packet);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
    return sights;
}

std::vector<Sight> player(const std::string& url, const char* transport, kelp::SyncMasterMode master, size_t wanted) {
    kelp::test::RecordingSink sink(kelp::test::RecordingSink::Keep::Bytes);
    kelp::test::Playback playback;
    playback.player().enableHwDecoder(false, kelp::HW_DECODE_NONE);
    playback.player().setOption("rtsp_transport", transport);
    playback.player().setAVSyncMode(master);
    playback.player().addWindow(kelp::WINDOW_TYPE_EXTERN, static_cast<kelp::ExternFrameSink*>(&sink), 0, 0);
    std::vector<Sight> sights;
    if (!playback.open(url) || !playback.player().play()) {
        return sights;
    }
    sink.waitForFrames(static_cast<int>(wanted), static_cast<int>(wanted) * 1000 / kFps + 10000);
    for (const auto& frame : sink.frames()) {
        const int64_t made = readClockPicture(frame.bytes.data(), frame.width, frame.width, frame.height);
        sights.push_back({static_cast<double>(made), static_cast<double>(frame.atUs) / 1000});
    }
    return sights;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 20;
    const size_t wanted = static_cast<size_t>(seconds * kFps + kWarmUpFrames);
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    kelp::Log::SetLevel(1);
    av_log_set_level(AV_LOG_QUIET);
    kelp::test::RtspServer server;
    std::printf("milliseconds from the making of a picture to its showing; 320x180, %d pictures a second\n\n", kFps);
    std::printf("%-34s %9s %9s %9s   %9s %9s   %s\n", "", "median", "99th", "longest", "jitter", "99th", "pictures");
    print("bare loop, H.264, TCP", bareLoop(server.url("h264"), wanted), wanted);
    struct Row {
        const char* name;
        const char* stream;
        const char* transport;
        kelp::SyncMasterMode master;
    };
    for (const Row& row : {Row{"H.264, TCP, no master", "h264", "tcp", kelp::SYNC_MASTER_VIDEO},
                           Row{"H.264, UDP, no master", "h264", "udp", kelp::SYNC_MASTER_VIDEO},
                           Row{"H.264, TCP, clock", "h264", "tcp", kelp::SYNC_MASTER_CLOCK},
                           Row{"H.264 and AAC, TCP, no master", "h264-aac", "tcp", kelp::SYNC_MASTER_VIDEO},
                           Row{"H.264 and AAC, TCP, clock", "h264-aac", "tcp", kelp::SYNC_MASTER_CLOCK},
                           Row{"H.264 and AAC, TCP, sound", "h264-aac", "tcp", kelp::SYNC_MASTER_AUDIO},
                           Row{"HEVC and A-law, TCP, no master", "hevc-alaw", "tcp", kelp::SYNC_MASTER_VIDEO}}) {
        print(row.name, player(server.url(row.stream), row.transport, row.master, wanted), wanted);
    }
    return 0;
}
