// A whole file through open, read and seek, to a packet sink, and sometimes into a recording.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "fuzz/memory_file.h"
#include "fuzz/quiet.h"
#include "input/packet_outlet.h"
#include "input/stream_parser.h"
#include "kelp_player/recorder.h"
#include "subtitle/subtitle_tracks.h"
#include "support/temp_files.h"

using kelp::AudioPacket;
using kelp::MediaPacket;
using kelp::StreamParser;
using kelp::VideoPacket;
using kelp::test::require;

namespace {

constexpr int kMaxPackets = 120;  // of one run, between two seeks

class Observer final : public kelp::StreamParserObserver {
public:
    virtual ~Observer() = default;

    void onFirstPakcet(std::shared_ptr<MediaPacket> packet) override { require(packet != nullptr, "a first packet"); }
    int onAudioPakcet(std::shared_ptr<AudioPacket> packet) override {
        require(packet->mediaType == 1 && (packet->data || tellsSoundEnd), "a packet of sound has bytes");
        take(*packet);
        return 0;
    }
    int onVideoPacket(std::shared_ptr<VideoPacket> packet) override {
        require(packet->mediaType == 0, "a packet of pictures");
        if (packet->data) {
            require(packet->keyFrame || packet->foundKeyFrame || marksNoKeyFrames, "a key frame comes first");
        }
        take(*packet);
        return 0;
    }
    int onAudioPacketQueueSize() override { return 0; }
    int onVideoPacketQueueSize() override { return 0; }
    int onAudioFrameQueueSize() override { return 0; }
    int onVideoFrameQueueSize() override { return 0; }
    // Each packet is of 100 ms, and four go by while none comes.
    kelp::WaitingPackets waitingPackets() override {
        std::lock_guard lock(mutex_);
        waiting_ = std::exchange(isReading_, false) ? waiting_ : std::max(waiting_ - 4, 0);
        return {.longestMs = 100 * waiting_};
    }
    void onSeekStart(int) override { require(!seeking_.exchange(true), "one seek at a time"); }
    void onSeekCompleted() override {
        require(seeking_.exchange(false), "a seek ends that was begun");
        std::lock_guard lock(mutex_);
        ++seeksDone_;
        packets_ = 0;
        over_ = false;
        changed_.notify_all();
    }
    void onFileEnd(int64_t, int64_t) override {}
    void onPlaybackCompleted() override { end(); }
    void onPlayFailed() override { end(); }

    // Something was read that the loop leaves out: the parser waits for a seek into it, if that was the end.
    void onLoopChanged(int64_t) override {
        std::lock_guard lock(mutex_);
        isLoopSeekDue_ = true;
        changed_.notify_all();
    }

    // Waits until so many packets came after that many seeks, or the input is over, and seeks into the loop.
    void wait(int packets, int seeks) {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [&] {
                return seeksDone_ >= seeks + loopSeeks_ && (isLoopSeekDue_ || over_ || packets_ >= packets);
            });
            if (!std::exchange(isLoopSeekDue_, false)) {
                return;
            }
            ++loopSeeks_;
            lock.unlock();
            seekIntoLoop();
            lock.lock();
        }
    }

    bool tellsSoundEnd = false;     // by a packet without any
    bool marksNoKeyFrames = false;  // some formats, which are played all the same
    std::function<void()> seekIntoLoop;

private:
    void take(MediaPacket& packet) {
        unsigned char sum = 0;
        for (int i = 0; i < packet.size; ++i) {
            sum = static_cast<unsigned char>(sum ^ packet.data[i]);
        }
        std::lock_guard lock(mutex_);
        sum_ = static_cast<unsigned char>(sum_ ^ sum);
        require(!packet.toString().empty(), "a text");
        ++packets_;
        ++waiting_;
        isReading_ = true;
        changed_.notify_all();
    }
    void end() {
        std::lock_guard lock(mutex_);
        over_ = true;
        changed_.notify_all();
    }

    std::atomic<bool> seeking_{false};
    std::mutex mutex_;  // guards all below
    std::condition_variable changed_;
    int packets_ = 0;
    int waiting_ = 0;
    bool isReading_ = false;
    int seeksDone_ = 0;
    int loopSeeks_ = 0;  // that were asked for
    bool isLoopSeekDue_ = false;
    bool over_ = false;
    unsigned char sum_ = 0;
};

// Has a path that looks as if a server had the file: it is read ahead by time, and its reads can be broken off.
class RemoteFolder {
public:
    RemoteFolder() { std::filesystem::create_directory(folder_.path(",tcp:")); }
    // The path by which the file at `path` is read.
    std::string put(const std::string& path) const {
        const std::string link = folder_.path(",tcp:/film");
        std::filesystem::remove(link);
        std::filesystem::create_symlink(path, link);
        return "file:" + folder_.path(",tcp://film");
    }

private:
    const kelp::test::TempFolder folder_;
};

// What a sink is promised, on the way to a recorder. The reader's thread's.
class Sink final : public kelp::ExternPacketSink {
public:
    virtual ~Sink() = default;

    void onStreams(const std::vector<kelp::PacketStream>& streams) override {
        require(!streams.empty(), "a stream");
        const std::vector<int> before = std::exchange(streams_, {});
        for (const auto& stream : streams) {
            require(stream.parameters && !stream.codec.empty(), "a stream is described");
            streams_.push_back(stream.track);
            // A video goes on where another sound was selected.
            const bool isNew = std::ranges::count(before, stream.track) == 0;
            isKeyFrameDue_ = isKeyFrameDue_ || (stream.kind == kelp::TRACK_KIND_VIDEO && isNew);
        }
        recorder.onStreams(streams);
    }
    void onPacket(const kelp::Packet& packet) override {
        require(std::ranges::count(streams_, packet.track) == 1, "a packet of a stream that was told");
        require(packet.size == 0 || packet.data, "a packet has its bytes");
        if (packet.kind == kelp::TRACK_KIND_VIDEO) {
            require(!isKeyFrameDue_ || packet.isKeyFrame || marksNoKeyFrames, "a key frame comes first for a sink");
            isKeyFrameDue_ = false;
        }
        recorder.onPacket(packet);
    }
    void onGap() override {
        isKeyFrameDue_ = true;
        recorder.onGap();
    }
    void onEnd() override {
        streams_.clear();
        isKeyFrameDue_ = true;
        recorder.onEnd();
    }

    kelp::Recorder recorder;
    bool marksNoKeyFrames = false;

private:
    std::vector<int> streams_;
    bool isKeyFrameDue_ = true;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kelp::test::quiet();
    const kelp::test::MemoryFile file(data, size);
    const uint32_t choice = kelp::test::hashOf(data, size);
    const auto observer = std::make_shared<Observer>();
    const auto subtitles = std::make_shared<kelp::SubtitleTracks>();
    Sink sink;
    const auto outlet = std::make_shared<kelp::PacketOutlet>();
    outlet->set(&sink);
    std::optional<kelp::test::TempFolder> folder;
    if ((choice >> 24U) % 4 == 0) {
        constexpr const char* kNames[] = {"film.mp4", "film.mov", "film.mkv", "film.ts"};
        folder.emplace();
        sink.recorder.start(folder->path(kNames[(choice >> 26U) % 4]), {.fileMs = (choice >> 28U) % 2 * 500});
    }
    StreamParser parser(nullptr, outlet, subtitles);
    parser.init(observer);
    // Some formats name other files to open, or hosts to call.
    parser.setOption("protocol_whitelist", "file");
    const bool playsAll = (choice & 4U) != 0;
    const bool seeksExactly = (choice & 128U) != 0;
    const auto seekRule = seeksExactly ? kelp::SeekRule::Exact : kelp::SeekRule::Standard;
    observer->marksNoKeyFrames = sink.marksNoKeyFrames = playsAll;
    observer->tellsSoundEnd = playsAll || seeksExactly;
    parser.setPlaybackOptions({.allCodecs = playsAll,
                               .closedLiveFails = (choice & 8U) != 0,
                               .readAheadMs = (choice >> 10U) % 3 * 500,
                               .rebufferMs = (choice >> 11U) % 2 * 300,
                               .maxPixels = (choice & 64U) != 0 ? 1 << 20 : 0,
                               .seekRule = seekRule,
                               .subtitleTrack = static_cast<int>(choice >> 24U) % 4 - 1});
    static const RemoteFolder remote;
    std::string path = file.path();
    if ((choice >> 13U) % 3 == 0) {
        path = remote.put(path);
    }
    if (!parser.open(path, choice % 4 == 0 ? static_cast<int64_t>(choice >> 20U) : 0)) {
        parser.close();
        return 0;
    }
    const auto stream = parser.getStreamInfo();
    const auto codec = parser.getCodecInfo();
    require(stream->has_video || stream->has_audio, "an open input has a stream");
    // A stream of another codec is there all the same, with no codec that is known.
    require(stream->has_video || codec->videoCodecType == kelp::VIDEO_CODEC_NONE, "no codec without pictures");
    require(stream->has_audio || codec->audioCodecType == kelp::AUDIO_CODEC_NONE, "no codec without sound");
    require(stream->is_live != stream->seekable && !stream->toString().empty(), "live ones can't seek");

    require(parser.start(), "an open input starts");
    // What goes on while it is read. Each turn of a loop, and each change of tracks, would be one more recording.
    const uint32_t more = choice * 2654435761U;
    if (!folder && stream->seekable && more % 3 == 0) {
        const int startMs = static_cast<int>(more >> 8U & 2047U);
        observer->seekIntoLoop = [&, startMs] { parser.seek(startMs, seekRule); };
        parser.setLoop(kelp::Loop{startMs, more % 2 == 0 ? kelp::Loop::kFilmEnd : startMs + 1 + (more >> 19U)});
    }
    for (const auto& track : stream->tracks) {
        if (track.kind == kelp::TRACK_KIND_SUBTITLE && track.isPlayable && (choice & (256U << track.number % 4)) != 0) {
            subtitles->choose(track.number);
            parser.selectTrack(kelp::TRACK_KIND_SUBTITLE, track.number);
        }
    }
    const auto changeTracks = [&] {
        for (const auto& track : stream->tracks) {
            const bool isPlayed = track.kind == kelp::TRACK_KIND_VIDEO   ? stream->has_video
                                  : track.kind == kelp::TRACK_KIND_AUDIO ? stream->has_audio
                                                                         : false;
            if (!folder && isPlayed && track.isPlayable && (more & (16U << track.number % 4)) != 0) {
                parser.selectTrack(track.kind, track.number);
            }
        }
    };
    const int seeks = static_cast<int>((choice >> 4U) % 3);
    for (int i = 0; i < seeks; ++i) {
        observer->wait(static_cast<int>((choice >> 8U) % kMaxPackets), i);
        changeTracks();
        parser.seek(static_cast<int>((choice >> (9U + 7U * static_cast<unsigned int>(i))) % 8192U) - 500);
        // One request is one seek only if it is taken before the next.
        observer->wait(0, i + 1);
    }
    observer->wait(static_cast<int>((more >> 4U) % kMaxPackets), seeks);
    changeTracks();
    if (more % 6 == 0) {
        parser.setLoop(std::nullopt);
    }
    observer->wait(kMaxPackets, seeks);
    if (choice % 2 == 0) {
        parser.stop();
    }
    parser.close();
    sink.recorder.stop();
    return 0;
}
