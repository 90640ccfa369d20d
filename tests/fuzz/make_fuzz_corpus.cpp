// Makes the targets' corpora out of the table of media files, into the folder given: files/, video/ and audio/.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
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
    for (const char* part : {"files", "video", "audio"}) {
        fs::remove_all(folder / part);
        fs::create_directories(folder / part);
    }
    int files = 0;
    for (const auto& row : kelp::test::mediaTable()) {
        const std::string path = kelp::test::mediaPath(row.name);
        if (fs::exists(path) && fs::file_size(path) <= kMaxFileBytes) {
            fs::copy_file(path, folder / "files" / row.name);
            writePackets(path, folder, row.name);
            ++files;
        }
    }
    std::printf("%d files\n", files);
    return files > 0 ? 0 : 1;
}
