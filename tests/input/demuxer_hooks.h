#pragma once

#include <cstdint>
#include <functional>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

namespace kelp::test {

// What the library functions that this program wraps do in place of the real ones. An empty hook stands for the real
// function. Hooks are set while no thread of a parser runs.
struct DemuxerHooks {
    std::function<AVFormatContext*()> allocContext;
    std::function<int(AVFormatContext**, const char*, AVDictionary**)> openInput;
    std::function<int(AVFormatContext*)> findStreamInfo;
    std::function<int(AVFormatContext*, AVPacket*)> readFrame;
    std::function<int(AVFormatContext*, int stream, int64_t minTs, int64_t ts, int64_t maxTs, int flags)> seekFile;
    std::function<int(AVFormatContext*)> readPause;
    std::function<int(AVFormatContext*)> readPlay;
    std::function<AVCodecContext*()> allocCodecContext;
    std::function<const AVCodec*(AVCodecID)> findDecoder;
    std::function<int(AVCodecContext*)> openCodec;
    std::function<int(AVCodecContext*, const AVCodecParameters*)> parametersToContext;
    std::function<int(AVCodecParameters*, const AVCodecParameters*)> parametersCopy;
    std::function<AVRational(AVStream*)> guessFrameRate;
    std::function<const AVBitStreamFilter*(const char*)> bsfByName;
    std::function<int(const AVBitStreamFilter*, AVBSFContext**)> bsfAlloc;
    std::function<int(AVBSFContext*)> bsfInit;
    std::function<int(AVBSFContext*, AVPacket*)> bsfSend;
    std::function<int(AVBSFContext*, AVPacket*)> bsfReceive;
};

DemuxerHooks& hooks();

// Takes all hooks away.
void resetHooks();

}  // namespace kelp::test

// The real functions behind the wrapped ones.
extern "C" {
AVFormatContext* __real_avformat_alloc_context();
int __real_avformat_open_input(AVFormatContext**, const char*, const AVInputFormat*, AVDictionary**);
int __real_avformat_find_stream_info(AVFormatContext*, AVDictionary**);
int __real_av_read_frame(AVFormatContext*, AVPacket*);
int __real_avformat_seek_file(AVFormatContext*, int, int64_t, int64_t, int64_t, int);
int __real_av_read_pause(AVFormatContext*);
int __real_av_read_play(AVFormatContext*);
AVCodecContext* __real_avcodec_alloc_context3(const AVCodec*);
const AVCodec* __real_avcodec_find_decoder(AVCodecID);
int __real_avcodec_open2(AVCodecContext*, const AVCodec*, AVDictionary**);
int __real_avcodec_parameters_to_context(AVCodecContext*, const AVCodecParameters*);
int __real_avcodec_parameters_copy(AVCodecParameters*, const AVCodecParameters*);
AVRational __real_av_guess_frame_rate(AVFormatContext*, AVStream*, AVFrame*);
const AVBitStreamFilter* __real_av_bsf_get_by_name(const char*);
int __real_av_bsf_alloc(const AVBitStreamFilter*, AVBSFContext**);
int __real_av_bsf_init(AVBSFContext*);
int __real_av_bsf_send_packet(AVBSFContext*, AVPacket*);
int __real_av_bsf_receive_packet(AVBSFContext*, AVPacket*);
}
