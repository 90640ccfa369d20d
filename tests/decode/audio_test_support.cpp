#include "decode/audio_test_support.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstring>
#include <stdexcept>

#include "input/codec_tables.h"
#include "support/temp_files.h"

namespace kelp::test {

void AVParametersDeleter::operator()(AVCodecParameters* parameters) const {
    avcodec_parameters_free(&parameters);
}

AVFramePtr makeAudioFrame(AVSampleFormat format, int channels, int sampleRate, int nbSamples, int64_t pts) {
    AVFramePtr frame(av_frame_alloc());
    frame->format = format;
    frame->sample_rate = sampleRate;
    frame->nb_samples = nbSamples;
    frame->pts = pts;
    av_channel_layout_default(&frame->ch_layout, channels);
    if (av_frame_get_buffer(frame.get(), 0) < 0) {
        throw std::runtime_error("no frame buffer");
    }
    const bool planar = av_sample_fmt_is_planar(format);
    const int planeBytes = nbSamples * av_get_bytes_per_sample(format) * (planar ? 1 : channels);
    for (int plane = 0; plane < (planar ? channels : 1); ++plane) {
        for (int i = 0; i < planeBytes; ++i) {
            frame->extended_data[plane][i] = static_cast<uint8_t>(i + 16 * plane);
        }
    }
    return frame;
}

AVParametersPtr makeALawParameters(int channels, int sampleRate) {
    AVParametersPtr parameters(avcodec_parameters_alloc());
    parameters->codec_type = AVMEDIA_TYPE_AUDIO;
    parameters->codec_id = AV_CODEC_ID_PCM_ALAW;
    parameters->sample_rate = sampleRate;
    av_channel_layout_default(&parameters->ch_layout, channels);
    return parameters;
}

std::shared_ptr<AudioPacket> makeAudioPacket(int64_t pts, int size, int64_t num, int64_t den) {
    auto packet = std::make_shared<AudioPacket>();
    packet->data = new unsigned char[static_cast<size_t>(size)]();
    packet->size = size;
    packet->pts = pts;
    packet->dts = pts;
    packet->timeBaseNum = num;
    packet->timeBaseDen = den;
    return packet;
}

void RecordingAudioObserver::onAudioDecoded(std::shared_ptr<AudioFrameInfo> frame) {
    frames.push_back(std::move(frame));
}

int RecordingAudioObserver::onSpeedUpSamples() {
    ++speedUpAsked;
    return speedUp;
}

std::shared_ptr<FrameBuffer> RecordingAudioObserver::allocPcmBuffer(unsigned int size) {
    sizesAsked.push_back(size);
    if (refuseBuffers) {
        return nullptr;
    }
    auto buffer = std::make_shared<FrameBuffer>();
    buffer->data = new unsigned char[size]();
    buffer->size = size;
    return buffer;
}

void RecordingAudioObserver::freePcmBuffer(std::shared_ptr<FrameBuffer> buffer) {
    buffersGivenBack.push_back(std::move(buffer));
}

namespace {

struct InputCloser {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};

}  // namespace

ToneFile makeToneFile(const std::string& encoder, const std::string& extension, int hz, int sampleRate, int channels,
                      int seconds) {
    const TempFolder folder;
    const std::string file = folder.path("tone." + extension);
    runFFmpeg("-f lavfi -i sine=frequency=" + std::to_string(hz) + ":sample_rate=" + std::to_string(sampleRate) +
              ":duration=" + std::to_string(seconds) + " -ac " + std::to_string(channels) + " -c:a " + encoder + " " +
              file);

    AVFormatContext* opened = nullptr;
    if (avformat_open_input(&opened, file.c_str(), nullptr, nullptr) < 0) {
        throw std::runtime_error("can't open " + file);
    }
    const std::unique_ptr<AVFormatContext, InputCloser> input(opened);
    if (avformat_find_stream_info(input.get(), nullptr) < 0 || input->nb_streams != 1) {
        throw std::runtime_error("no stream in " + file);
    }
    const AVStream* stream = input->streams[0];

    ToneFile tone;
    tone.codecType = audioCodecTypeFromId(stream->codecpar->codec_id);
    tone.parameters.reset(avcodec_parameters_alloc());
    avcodec_parameters_copy(tone.parameters.get(), stream->codecpar);
    AVPacket* read = av_packet_alloc();
    while (av_read_frame(input.get(), read) >= 0) {
        auto packet = makeAudioPacket(read->pts, read->size, stream->time_base.num, stream->time_base.den);
        std::memcpy(packet->data, read->data, static_cast<size_t>(read->size));
        packet->dts = read->dts;
        packet->duration = read->duration;
        packet->flags = read->flags;
        tone.sideData.emplace_back(av_packet_clone(read), [](AVPacket* copy) { av_packet_free(&copy); });
        tone.packets.push_back(std::move(packet));
        av_packet_unref(read);
    }
    av_packet_free(&read);
    return tone;
}

double measureHz(const std::vector<int16_t>& samples, int sampleRate) {
    double first = -1;
    double last = -1;
    int crossings = 0;
    for (size_t i = 1; i < samples.size(); ++i) {
        if (samples[i - 1] < 0 && samples[i] >= 0) {
            const double at = static_cast<double>(i) - static_cast<double>(samples[i]) / (samples[i] - samples[i - 1]);
            first = crossings == 0 ? at : first;
            last = at;
            ++crossings;
        }
    }
    return crossings < 2 ? 0 : (crossings - 1) * sampleRate / (last - first);
}

}  // namespace kelp::test
