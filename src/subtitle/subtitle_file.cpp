#include "subtitle/subtitle_file.h"

#include <chrono>
#include <filesystem>
#include <string_view>
#include <utility>

#include "input/track_list.h"
#include "kelp_player/log.h"
#include "runtime/utf8.h"
#include "subtitle/bounded_file.h"
#include "subtitle/subtitle_decoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kelp {

namespace {

constexpr char kTag[] = "SubtitleFile";
constexpr int64_t kMaxFileBytes = int64_t{256} << 20;
constexpr int64_t kMaxPacketBytes = int64_t{64} << 20;  // of all
constexpr int kMaxFailures = 100;                       // in a row
constexpr std::chrono::seconds kLongest{10};            // the film waits so long for its subtitles

struct CloseInput {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using Input = std::unique_ptr<AVFormatContext, CloseInput>;

struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

int interrupt(void* isToGiveUp) {
    return (*static_cast<const std::function<bool()>*>(isToGiveUp))() ? 1 : 0;
}

// A pipe may keep a reader waiting where nobody can end that: one in the file system, or one by its number. What is
// made of several files may have one among them.
bool isReadable(std::string_view path) {
    for (const std::string_view around : {"cache:", "async:", "file:"}) {
        path.remove_prefix(path.starts_with(around) ? around.size() : 0);
    }
    for (const std::string_view refused : {"pipe:", "fd:", "concat:", "concatf:", "subfile,", "cache:", "async:"}) {
        if (path.starts_with(refused)) {
            return false;
        }
    }
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    return !std::filesystem::exists(status) || std::filesystem::is_regular_file(status);
}

Input open(const std::string& path, const std::map<std::string, std::string>& options,
           const std::function<bool()>& isToGiveUp, BoundedFile& file) {
    if (!isReadable(path)) {
        Log::Error(kTag, "%s, %s is no file\n", "read", path.c_str());
        return nullptr;
    }
    AVFormatContext* context = avformat_alloc_context();
    if (!context) {
        return nullptr;
    }
    context->interrupt_callback = {interrupt, const_cast<std::function<bool()>*>(&isToGiveUp)};
    int result = file.open(path, options, context->interrupt_callback);
    if (result < 0) {
        avformat_free_context(context);
    } else {
        AVDictionary* entries = nullptr;
        for (const auto& [key, value] : options) {
            av_dict_set(&entries, key.c_str(), value.c_str(), 0);
        }
        context->pb = file.io();
        result = avformat_open_input(&context, path.c_str(), nullptr, &entries);  // frees the context where it fails
        av_dict_free(&entries);
    }
    Input input(result >= 0 ? context : nullptr);
    // What it is of is known by now, but of what is cut into streams while it is read.
    if (input && (input->ctx_flags & AVFMTCTX_NOHEADER) != 0) {
        result = avformat_find_stream_info(input.get(), nullptr);
    }
    if (result < 0) {
        char text[AV_ERROR_MAX_STRING_SIZE] = {};
        av_strerror(result, text, sizeof(text));
        Log::Error(kTag, "%s, %s can't be read: %s\n", "read", path.c_str(), text);
        return nullptr;
    }
    return input;
}

}  // namespace

SubtitleFile SubtitleFile::read(const std::string& path, const std::map<std::string, std::string>& options,
                                int firstNumber, const std::function<bool()>& isStopped) {
    SubtitleFile file;
    const std::function<bool()> isToGiveUp = [&, end = std::chrono::steady_clock::now() + kLongest] {
        return isStopped() || std::chrono::steady_clock::now() >= end;
    };
    BoundedFile bytes(kMaxFileBytes);  // outlives the input
    const Input input = open(path, options, isToGiveUp, bytes);
    if (!input) {
        return file;
    }
    const auto charset = options.find("sub_charenc");
    std::map<int, std::pair<std::unique_ptr<SubtitleDecoder>, std::shared_ptr<SubtitleTrack>>> readers;
    for (Track& track : listTracks(*input, {})) {
        AVStream& stream = *input->streams[track.number];
        if (track.kind != TRACK_KIND_SUBTITLE) {
            stream.discard = AVDISCARD_ALL;
            continue;
        }
        auto decoder = SubtitleDecoder::open(*stream.codecpar, stream.time_base, 0,
                                             charset != options.end() ? charset->second : std::string());
        std::shared_ptr<SubtitleTrack> known;
        if (decoder) {
            known = std::make_shared<SubtitleTrack>(SubtitleTrack::Head{decoder->isText(), decoder->isStyled(),
                                                                        decoder->script(),
                                                                        decoder->isText() ? fontsOf(*input) : nullptr});
            readers[track.number] = {std::move(decoder), known};
        }
        track.isPlayable = known != nullptr;
        track.number = firstNumber + static_cast<int>(file.entries.size());
        if (track.title.empty()) {
            track.title = readableUtf8(std::filesystem::path(path).filename().string());
        }
        file.entries.push_back({std::move(track), std::move(known)});
    }
    if (readers.empty()) {
        Log::Error(kTag, "%s, %s has no subtitles\n", "read", path.c_str());
        return file;
    }
    const std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
    int64_t packetBytes = 0;
    int failures = 0;
    while (packet && packetBytes < kMaxPacketBytes && failures < kMaxFailures && !isToGiveUp()) {
        const int result = av_read_frame(input.get(), packet.get());
        if (result == AVERROR_EOF && !bytes.isCut()) {
            return file;
        }
        if (result < 0) {
            ++failures;
            continue;
        }
        failures = 0;
        packetBytes += packet->size;
        if (const auto reader = readers.find(packet->stream_index); reader != readers.end()) {
            for (SubtitleEvent& event : reader->second.first->decode(*packet)) {
                reader->second.second->add(std::move(event));
            }
        }
        av_packet_unref(packet.get());
    }
    Log::Warn(kTag, "%s, %s is read in part\n", "read", path.c_str());
    return file;
}

}  // namespace kelp
