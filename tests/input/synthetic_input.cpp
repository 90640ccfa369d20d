#include "input/synthetic_input.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

namespace kelp::test {

namespace {

// Room behind the format for what the library keeps there for itself, all zero.
struct FakeFormat {
    AVInputFormat format = {};
    unsigned char hidden[512] = {};
};

// Formats live for as long as the program: a context refers to its own until it is closed.
const AVInputFormat* formatNamed(const std::string& name) {
    static std::map<std::string, FakeFormat> formats;
    const auto [entry, isNew] = formats.try_emplace(name);
    if (isNew) {
        entry->second.format.name = entry->first.c_str();
        entry->second.format.long_name = "Synthetic";
    }
    return &entry->second.format;
}

void addStream(AVFormatContext* context, const SyntheticStream& description) {
    AVStream* stream = avformat_new_stream(context, nullptr);
    stream->time_base = description.timeBase;
    stream->r_frame_rate = description.rFrameRate;
    stream->avg_frame_rate = description.avgFrameRate;
    stream->disposition = description.disposition;
    for (const auto& [key, value] : description.tags) {
        av_dict_set(&stream->metadata, key.c_str(), value.c_str(), 0);
    }
    AVCodecParameters* parameters = stream->codecpar;
    parameters->codec_type = description.type;
    parameters->codec_id = description.codec;
    parameters->format = description.format;
    if (description.type == AVMEDIA_TYPE_VIDEO) {
        parameters->width = description.width;
        parameters->height = description.height;
    } else if (description.type == AVMEDIA_TYPE_AUDIO) {
        av_channel_layout_default(&parameters->ch_layout, description.channels);
        parameters->sample_rate = description.sampleRate;
    }
    if (!description.extraData.empty()) {
        const size_t size = description.extraData.size();
        parameters->extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
        std::memcpy(parameters->extradata, description.extraData.data(), size);
        parameters->extradata_size = static_cast<int>(size);
    }
}

}  // namespace

SyntheticStream videoStream(AVCodecID codec) {
    SyntheticStream stream;
    stream.codec = codec;
    return stream;
}

SyntheticStream audioStream(AVCodecID codec) {
    SyntheticStream stream;
    stream.type = AVMEDIA_TYPE_AUDIO;
    stream.codec = codec;
    stream.timeBase = {1, 44100};
    stream.format = AV_SAMPLE_FMT_FLTP;
    stream.channels = 2;
    stream.sampleRate = 44100;
    return stream;
}

void SyntheticInput::install() const {
    hooks().openInput = [input = *this](AVFormatContext** context, const char* path, AVDictionary**) {
        AVFormatContext* made = *context;
        made->iformat = formatNamed(input.formatName);
        made->url = av_strdup(path);
        made->start_time = input.startTimeUs;
        made->duration = input.durationUs;
        if (input.hasPb) {
            // Freed with the context, as one that was opened from a path.
            made->pb = avio_alloc_context(static_cast<unsigned char*>(av_malloc(64)), 64, 0, nullptr, nullptr, nullptr,
                                          nullptr);
        }
        for (const auto& stream : input.streams) {
            addStream(made, stream);
        }
        return 0;
    };
    hooks().findStreamInfo = [](AVFormatContext*) { return 0; };
}

ReadScript& ReadScript::packet(int stream, int64_t pts, int flags) {
    return packet([=](AVPacket* packet) {
        av_new_packet(packet, 4);
        std::memset(packet->data, static_cast<int>(pts & 0xff), 4);
        packet->stream_index = stream;
        packet->pts = pts;
        packet->dts = pts;
        packet->flags = flags;
    });
}

ReadScript& ReadScript::timed(int stream, int64_t pts, int64_t dts, int64_t duration) {
    return packet([=](AVPacket* packet) {
        av_new_packet(packet, 1);
        packet->stream_index = stream;
        packet->pts = pts;
        packet->dts = dts;
        packet->duration = duration;
        packet->flags = AV_PKT_FLAG_KEY;
    });
}

ReadScript& ReadScript::packet(std::function<void(AVPacket*)> fill) {
    steps_.push_back({[fill = std::move(fill)](AVPacket* packet) {
                          fill(packet);
                          return 0;
                      },
                      nullptr});
    return *this;
}

ReadScript& ReadScript::error(int code, int times) {
    for (int i = 0; i < times; ++i) {
        steps_.push_back({[code](AVPacket*) { return code; }, nullptr});
    }
    return *this;
}

ReadScript& ReadScript::then(std::function<void()> action) {
    steps_.push_back({nullptr, std::move(action)});
    return *this;
}

void ReadScript::install() {
    hooks().readFrame = [this](AVFormatContext*, AVPacket* packet) { return readFrame(packet); };
}

int ReadScript::readFrame(AVPacket* packet) {
    while (!steps_.empty()) {
        const Step step = std::move(steps_.front());
        steps_.pop_front();
        if (step.read) {
            ++reads_;
            return step.read(packet);
        }
        step.action();
    }
    parser_.requestStop();
    {
        std::lock_guard lock(mutex_);
        done_ = true;
    }
    doneCond_.notify_all();
    return AVERROR(EAGAIN);
}

bool ReadScript::waitUntilDone() {
    std::unique_lock lock(mutex_);
    return doneCond_.wait_for(lock, std::chrono::seconds(20), [&] { return done_; });
}

}  // namespace kelp::test
