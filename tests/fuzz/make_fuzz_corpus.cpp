// Makes the targets' corpora out of the table of media files, into the folder given: files/, video/, audio/ and
// subtitles/.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>
#include <vector>

#include "e2e/media.h"
#include "fuzz/packet_stream.h"
#include "input/codec_tables.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

namespace fs = std::filesystem;

constexpr uintmax_t kMaxFileBytes = uintmax_t{3} << 19U;  // larger ones make the runs slow
constexpr int kMaxPackets = 16;
constexpr int kMaxPacketBytes = 0xFFFF;

void put(std::ofstream& out, const void* data, size_t size) {
    out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

template <class Number>
void put(std::ofstream& out, Number number) {
    put(out, &number, sizeof(number));
}

// Text as programs write it.
constexpr std::pair<const char*, const char*> kTexts[] = {
    {"plain.srt",
     "1\n00:00:01,000 --> 00:00:02,500\n<i>one</i> {\\an8}two\n\n2\n00:00:03,000 --> 00:00:04,000\n\xE9\n"},
    {"cues.vtt",
     "WEBVTT\n\n00:01.000 --> 00:02.000 line:10%\n<v Who>one <b>two</b>\n\n00:03.000 --> 00:04.000\nthree\n"},
    {"styled.ass",
     "[Script Info]\nScriptType: v4.00+\nPlayResX: 320\nPlayResY: 180\n\n[V4+ Styles]\nFormat: Name, Fontname, "
     "Fontsize, "
     "PrimaryColour\nStyle: Default,Sans,20,&H00FFFFFF\n\n[Events]\nFormat: Layer, Start, End, Style, Name, MarginL, "
     "MarginR, MarginV, Effect, Text\nDialogue: 0,0:00:01.00,0:00:03.00,Default,,0,0,0,,"
     "{\\move(0,0,99,99)\\t(0,500,\\frz90)\\clip(m 0 0 l 9 9 9 0)\\fad(9,9)}moves\nDialogue: 0,0:00:02.00,0:00:04.00,"
     "Default,,0,0,0,Banner;9,{\\p1}m 0 0 l 99 0 b 99 9 9 9 0 0{\\p0}\\Nrest\n"},
    {"frames.sub", "{1}{1}25\n{25}{50}one|two\n{60}{80}{y:i}three\n"},
    {"page.smi", "<SAMI><BODY><SYNC Start=1000><P>one<br>two<SYNC Start=2000><P>&nbsp;</BODY></SAMI>\n"},
};

// The streams' first packets, one stream to a file.
void writePackets(const std::string& path, const fs::path& folder, const std::string& name) {
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) {
        return;
    }
    avformat_find_stream_info(input, nullptr);
    std::vector<std::ofstream> outputs(input->nb_streams);
    std::vector<int> counts(input->nb_streams);
    for (unsigned int i = 0; i < input->nb_streams; ++i) {
        const AVCodecParameters* parameters = input->streams[i]->codecpar;
        const bool isVideo = parameters->codec_type == AVMEDIA_TYPE_VIDEO;
        const int type = isVideo ? kelp::videoCodecTypeFromId(parameters->codec_id)
                                 : static_cast<int>(kelp::audioCodecTypeFromId(parameters->codec_id));
        if (type < 0) {
            continue;
        }
        auto& out = outputs[i];
        out.open(folder / (isVideo ? "video" : "audio") / (name + ".packets"), std::ios::binary);
        put(out, static_cast<uint8_t>(type));
        put(out, static_cast<uint8_t>(isVideo ? std::max<int>(kelp::pixFormatFromAv(parameters->format), 0) : 1));
        put(out, static_cast<uint32_t>(isVideo ? parameters->width : parameters->sample_rate));
        put(out, static_cast<uint16_t>(isVideo ? parameters->height : parameters->ch_layout.nb_channels));
        const auto extraSize = static_cast<uint16_t>(std::min(parameters->extradata_size, 0xFFFF));
        put(out, extraSize);
        put(out, parameters->extradata, extraSize);
    }
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(input, packet) >= 0) {
        const auto i = static_cast<size_t>(packet->stream_index);
        // The first pictures alone would be the largest part of a file.
        if (i < outputs.size() && outputs[i].is_open() && counts[i] < kMaxPackets && packet->size <= kMaxPacketBytes) {
            ++counts[i];
            const bool isKey = (packet->flags & AV_PKT_FLAG_KEY) != 0;
            put(outputs[i], static_cast<uint8_t>(isKey ? kelp::test::kKeyPacket : 0));
            put(outputs[i], static_cast<uint8_t>(40));
            put(outputs[i], static_cast<uint16_t>(packet->size));
            put(outputs[i], packet->data, static_cast<size_t>(packet->size));
        }
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&input);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_fuzz_corpus FOLDER\n");
        return 2;
    }
    av_log_set_level(AV_LOG_QUIET);
    const fs::path folder(argv[1]);
    for (const char* part : {"files", "video", "audio", "subtitles"}) {
        fs::remove_all(folder / part);
        fs::create_directories(folder / part);
    }
    int files = 0;
    for (const auto& row : kelp::test::mediaTable()) {
        const std::string path = kelp::test::mediaPath(row.name);
        const bool namesOthers = path.ends_with(".m3u8") || path.ends_with(".mpd");
        if (fs::exists(path) && fs::file_size(path) <= kMaxFileBytes && !namesOthers) {
            fs::copy_file(path, folder / "files" / row.name);
            writePackets(path, folder, row.name);
            if (std::string_view(row.name).starts_with("subtitles")) {
                fs::copy_file(path, folder / "subtitles" / row.name);
            }
            ++files;
        }
    }
    for (const auto& [name, text] : kTexts) {
        std::ofstream(folder / "subtitles" / name, std::ios::binary) << text;
    }
    std::printf("%d files\n", files);
    return files > 0 ? 0 : 1;
}
