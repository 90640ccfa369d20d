#include "e2e/packet_facts.h"

#include <algorithm>
#include <climits>
#include <cstdint>

extern "C" {
#include <libavformat/avformat.h>
}

namespace kelp::test {

namespace {

// `takesNegative`: an input that begins before 0 counts from its beginning, too.
PacketFacts read(const std::string& path, bool takesNegative, std::vector<int64_t>& pictures) {
    PacketFacts facts;
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) {
        return facts;
    }
    avformat_find_stream_info(context, nullptr);
    const int video = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const int audio = av_find_best_stream(context, AVMEDIA_TYPE_AUDIO, -1, video, nullptr, 0);
    facts.hasVideo = video >= 0;
    facts.hasAudio = audio >= 0;
    if (facts.hasVideo) {
        facts.width = context->streams[video]->codecpar->width;
        facts.height = context->streams[video]->codecpar->height;
    }
    const int64_t startUs = context->start_time == AV_NOPTS_VALUE ? 0 : context->start_time;
    facts.durationMs = static_cast<int>(context->duration / 1000);
    bool sawFirst = false;
    bool sawKey = false;
    facts.firstVideoFrameMs = INT_MAX;
    AVPacket* packet = av_packet_alloc();
    for (; av_read_frame(context, packet) >= 0; av_packet_unref(packet)) {
        const int index = packet->stream_index;
        const bool isVideo = index == video;
        sawKey = sawKey || (isVideo && (packet->flags & AV_PKT_FLAG_KEY) != 0);
        if ((!isVideo && index != audio) || (isVideo && !sawKey)) {
            continue;
        }
        const AVRational base = context->streams[index]->time_base;
        const int64_t start = startUs > 0 || takesNegative ? base.den * startUs / base.num / 1000000 : 0;
        const int64_t best = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
        const int ms = static_cast<int>(((best == AV_NOPTS_VALUE ? 0 : best) - start) * base.num * 1000 / base.den);
        if (!sawFirst) {
            facts.firstPacketMs = ms;
            sawFirst = true;
        }
        if (isVideo) {
            facts.firstVideoFrameMs = std::min(facts.firstVideoFrameMs, ms);
            pictures.push_back(ms);
        }
        facts.lastPtsMs = std::max(facts.lastPtsMs, ms);
    }
    av_packet_free(&packet);
    avformat_close_input(&context);
    return facts;
}

}  // namespace

PacketFacts packetFacts(const std::string& path) {
    std::vector<int64_t> pictures;
    return read(path, /*takesNegative=*/false, pictures);
}

std::vector<int64_t> pictureTimes(const std::string& path) {
    std::vector<int64_t> pictures;
    read(path, /*takesNegative=*/true, pictures);
    std::sort(pictures.begin(), pictures.end());
    return pictures;
}

}  // namespace kelp::test
