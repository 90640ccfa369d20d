// Measures how far behind its source a live source is shown: from the clock that the tests' RTSP server draws into its
// pictures to the frame sink, on the same machine over the loopback address; and how soon that is so again behind a
// standstill of the connection.
//
// usage: live_delay [--quick] [--rows FILE]. Each row is watched for 12 s, or 5, after the first 3 s, three of a kind
// at the same time, and the four standstills. What a player needs more than a bare loop, which reads and decodes and
// shows at once, is the player's own. FILE gets what stands on standard output, with tabs.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "e2e/clock_picture.h"
#include "e2e/playback.h"
#include "e2e/recording_sink.h"
#include "e2e/rtsp_server.h"
#include "e2e/tcp_relay.h"
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
constexpr double kStandstillMs = 3000;
constexpr double kBackMs = 20;  // a delay so much above the one before the standstill is that one again

// One picture: when it was made and when it was there, in milliseconds.
struct Sight {
    double made = 0;
    double shown = 0;
    double delay() const { return shown - made; }
};

double quantile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[static_cast<size_t>(part * static_cast<double>(values.size() - 1))];
}

double medianDelay(const std::vector<Sight>& sights) {
    std::vector<double> delays;
    for (const Sight& sight : sights) {
        delays.push_back(sight.delay());
    }
    return quantile(delays, 0.5);
}

// Prints the rows, and writes them to a file for another program.
class Rows {
public:
    explicit Rows(const char* path) {
        if (path) {
            file_.open(path);
        }
        std::printf("%-44s %9s %9s %9s   %9s %9s   %8s   %s\n", "", "median", "99th", "longest", "jitter", "99th",
                    "pictures", "back after");
    }

    // `backMs`: after the end of a standstill.
    void add(const std::string& name, const std::vector<Sight>& sights, std::optional<double> backMs = {}) {
        std::vector<double> delays;
        std::vector<double> jitter;  // how much the distance of two pictures differs from that of their making
        for (size_t i = kWarmUpFrames; i < sights.size(); ++i) {
            delays.push_back(sights[i].delay());
            jitter.push_back(std::abs((sights[i].shown - sights[i - 1].shown) - (sights[i].made - sights[i - 1].made)));
        }
        const std::string back = backMs ? std::to_string(std::lround(*backMs)) : "";
        const double figures[] = {quantile(delays, 0.5), quantile(delays, 0.99), quantile(delays, 1),
                                  quantile(jitter, 0.5), quantile(jitter, 0.99), static_cast<double>(delays.size())};
        std::printf("%-44s %9.1f %9.1f %9.1f   %9.1f %9.1f   %8.0f   %s\n", name.c_str(), figures[0], figures[1],
                    figures[2], figures[3], figures[4], figures[5], back.c_str());
        std::fflush(stdout);
        file_ << name;
        for (const double figure : figures) {
            file_ << '\t' << figure;
        }
        file_ << '\t' << back << std::endl;
    }

private:
    std::ofstream file_;
};

std::vector<Sight> bareLoop(const std::string& url, const char* transport, size_t wanted) {
    std::vector<Sight> sights;
    AVFormatContext* format = nullptr;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "rtsp_transport", transport, 0);
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

struct Player {
    kelp::test::RecordingSink sink{kelp::test::RecordingSink::Keep::Bytes};
    kelp::test::Playback playback;

    bool play(const std::string& url, const char* transport, const char* delay, kelp::SyncMasterMode master,
              const char* timing = "standard") {
        playback.player().setOption("timing", timing);
        playback.player().enableHwDecoder(false, kelp::HW_DECODE_NONE);
        playback.player().setOption("rtsp_transport", transport);
        playback.player().setOption("live_delay", delay);
        playback.player().setAVSyncMode(master);
        playback.player().addWindow(kelp::WINDOW_TYPE_EXTERN, static_cast<kelp::ExternFrameSink*>(&sink), 0, 0);
        return playback.open(url) && playback.player().play();
    }
    bool watch(size_t wanted) {
        return sink.waitForFrames(static_cast<int>(wanted), static_cast<int>(wanted) * 1000 / kFps + 10000);
    }
    std::vector<Sight> sights() {
        std::vector<Sight> sights;
        for (const auto& frame : sink.frames()) {
            const int64_t made = readClockPicture(frame.bytes.data(), frame.width, frame.width, frame.height);
            sights.push_back({static_cast<double>(made), static_cast<double>(frame.atUs) / 1000});
        }
        return sights;
    }
};

// What came of a row that isn't printed yet.
struct Row {
    std::string name;
    std::vector<Sight> sights;
    std::optional<double> backMs;
};

std::vector<Sight> player(const std::string& url, const char* transport, const char* delay, kelp::SyncMasterMode master,
                          size_t wanted, const char* timing = "standard") {
    Player player;
    if (player.play(url, transport, delay, master, timing)) {
        player.watch(wanted);
    }
    return player.sights();
}

// The connection stands for a while, and what the server sends meanwhile comes in one go.
Row standstill(const std::string& name, const kelp::test::RtspServer& server, const std::string& stream,
               const char* delay, kelp::SyncMasterMode master, size_t wanted) {
    kelp::test::TcpRelay relay(server.port());
    Player player;
    if (!player.play("rtsp://127.0.0.1:" + std::to_string(relay.port()) + "/" + stream, "tcp", delay, master) ||
        !player.watch(wanted)) {
        return {name, {}, {}};
    }
    const auto before = player.sights();
    const double usual = medianDelay({before.begin() + kWarmUpFrames, before.end()});
    relay.hold(true);
    std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(kStandstillMs));
    const double end = static_cast<double>(kelp::test::steadyUs()) / 1000;
    relay.hold(false);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    // The first of those that stay as soon as ever: nine of ten, as a busy machine holds one up now and then.
    const auto sights = player.sights();
    double back = 5000;
    size_t behind = 0;
    size_t late = 0;
    for (size_t i = sights.size(); i-- > 0 && sights[i].shown > end;) {
        late += sights[i].delay() > usual + kBackMs;
        if (late * 10 > ++behind) {
            break;
        }
        back = sights[i].shown - end;
    }
    return {name, before, back};
}

// Rows that are watched at the same time: so each has the same machine, and all take no longer than one.
class Together {
public:
    template <class Make>
    void add(Make make) {
        running_.push_back(std::async(std::launch::async, make));
    }
    void finish(Rows& rows) {
        for (auto& row : running_) {
            const Row made = row.get();
            rows.add(made.name, made.sights, made.backMs);
        }
        running_.clear();
    }

private:
    std::vector<std::future<Row>> running_;
};

}  // namespace

int main(int argc, char** argv) {
    int seconds = 12;
    const char* path = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        seconds = word == "--quick" ? 5 : seconds;
        path = word == "--rows" && i + 1 < argc ? argv[++i] : path;
    }
    const size_t wanted = static_cast<size_t>(seconds * kFps + kWarmUpFrames);
    // The dummy driver has one device, this one many.
    setenv("SDL_AUDIODRIVER", "disk", 0);
    setenv("SDL_DISKAUDIOFILE", "/dev/null", 0);
    kelp::Log::SetLevel(1);
    av_log_set_level(AV_LOG_QUIET);
    kelp::test::RtspServer server;
    Rows rows(path);
    Together together;
    const auto kNone = kelp::SYNC_MASTER_VIDEO;
    struct Picture {
        const char* name;
        const char* stream;
        const char* transport;
    };
    for (const Picture& row : {Picture{"H.264, TCP", "h264", "tcp"}, Picture{"H.264, UDP", "h264", "udp"},
                               Picture{"HEVC, TCP", "hevc", "tcp"}, Picture{"HEVC, UDP", "hevc", "udp"}}) {
        const std::string name = row.name;
        const std::string url = server.url(row.stream);
        together.add([=] { return Row{name + ", bare loop", bareLoop(url, row.transport, wanted), {}}; });
        for (const char* delay : {"standard", "low"}) {
            together.add([=] {
                return Row{name + ", " + delay, player(url, row.transport, delay, kNone, wanted), {}};
            });
        }
        together.finish(rows);
    }
    struct Master {
        const char* name;
        kelp::SyncMasterMode mode;
    };
    const Master kMasters[] = {
        {"no master", kNone}, {"clock", kelp::SYNC_MASTER_CLOCK}, {"sound", kelp::SYNC_MASTER_AUDIO}};
    for (const char* delay : {"standard", "low"}) {
        for (const Master& master : kMasters) {
            const std::string name = std::string("H.264 and AAC, TCP, ") + master.name + ", " + delay;
            const std::string url = server.url("h264-aac");
            together.add([=] { return Row{name, player(url, "tcp", delay, master.mode, wanted), {}}; });
        }
        if (delay == std::string("low")) {
            together.add([=, url = server.url("h264-aac")] {
                const auto sights = player(url, "tcp", delay, kelp::SYNC_MASTER_AUDIO, wanted, "exact");
                return Row{"H.264 and AAC, TCP, sound, exact and low", sights, {}};
            });
        }
        together.finish(rows);
    }
    const auto stand = [&](const std::string& name, const char* stream, const char* delay, kelp::SyncMasterMode mode) {
        together.add([=, &server, title = name + ", TCP, standstill, " + delay] {
            return standstill(title, server, stream, delay, mode, wanted / 2 + kWarmUpFrames / 2);
        });
    };
    stand("h264", "h264", "standard", kelp::SYNC_MASTER_AUDIO);
    stand("h264", "h264", "low", kelp::SYNC_MASTER_AUDIO);
    stand("h264-aac, sound", "h264-aac", "standard", kelp::SYNC_MASTER_AUDIO);
    for (const Master& master : kMasters) {
        stand(std::string("h264-aac, ") + master.name, "h264-aac", "low", master.mode);
    }
    together.finish(rows);
    return 0;
}
