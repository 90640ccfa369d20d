#include "playtask/pipeline_fixture.h"

#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

#include "support/ffmpeg_release.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace kelp::test {

std::atomic<int> PipelineFaults::failingMediaType{-2};
std::atomic<bool> PipelineFaults::noSoundTouch{false};
std::atomic<int> PipelineFaults::threadsUntilNone{0};
std::atomic<int> PipelineFaults::threadsUntilThrow{0};
std::function<void()> PipelineFaults::atThread;
std::function<void()> PipelineFaults::atStage;
std::function<void()> PipelineFaults::atTempo;
std::function<void()> PipelineFaults::atRead;
std::atomic<bool> PipelineFaults::isLive{false};
std::mutex PipelineFaults::temposMutex;
std::vector<float> PipelineFaults::tempos;

void PipelineFaults::reset() {
    failingMediaType = -2;
    noSoundTouch = false;
    threadsUntilNone = 0;
    threadsUntilThrow = 0;
    atThread = nullptr;
    atStage = nullptr;
    atTempo = nullptr;
    atRead = nullptr;
    isLive = false;
    std::lock_guard lock(temposMutex);
    tempos.clear();
}

}  // namespace kelp::test

using kelp::test::PipelineFaults;

namespace {

// The demuxer of the source that goes under another name, but for the library's own calls.
const AVInputFormat* realFormat = nullptr;

class UnderItsOwnName {
public:
    explicit UnderItsOwnName(AVFormatContext* context) : context_(context), name_(context->iformat) {
        if (PipelineFaults::isLive && realFormat) {
            context_->iformat = realFormat;
        }
    }
    ~UnderItsOwnName() { context_->iformat = name_; }

private:
    AVFormatContext* context_;
    const AVInputFormat* name_;
};

}  // namespace

extern "C" {

int __real_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options);
int __wrap_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options) {
    if (codec && (PipelineFaults::failingMediaType == -1 || codec->type == PipelineFaults::failingMediaType)) {
        return AVERROR_INVALIDDATA;
    }
    return __real_avcodec_open2(context, codec, options);
}

int __real_avformat_open_input(AVFormatContext**, const char*, const AVInputFormat*, AVDictionary**);
int __wrap_avformat_open_input(AVFormatContext** context, const char* url, const AVInputFormat* format,
                               AVDictionary** options) {
    const int result = __real_avformat_open_input(context, url, format, options);
    if (result == 0 && PipelineFaults::isLive) {
        static const AVInputFormat live = [] {
            AVInputFormat named{};
            named.name = "sdp";
            return named;
        }();
        realFormat = std::exchange((*context)->iformat, &live);
    }
    return result;
}

int __real_avformat_find_stream_info(AVFormatContext* context, AVDictionary** options);
int __wrap_avformat_find_stream_info(AVFormatContext* context, AVDictionary** options) {
    const UnderItsOwnName real(context);
    return __real_avformat_find_stream_info(context, options);
}

int __real_av_read_frame(AVFormatContext* context, AVPacket* packet);
int __wrap_av_read_frame(AVFormatContext* context, AVPacket* packet) {
    if (PipelineFaults::atRead) {
        PipelineFaults::atRead();
    }
    const UnderItsOwnName real(context);
    return __real_av_read_frame(context, packet);
}

void __real_avformat_close_input(AVFormatContext** context);
void __wrap_avformat_close_input(AVFormatContext** context) {
    if (*context && PipelineFaults::isLive && realFormat) {
        (*context)->iformat = realFormat;
    }
    __real_avformat_close_input(context);
}

// The library has no decoder of that number: another one stands in, whose pictures nobody sees.
const AVCodec* __real_avcodec_find_decoder(AVCodecID id);
const AVCodec* __wrap_avcodec_find_decoder(AVCodecID id) {
    return __real_avcodec_find_decoder(id == kelp::test::codecId270() ? AV_CODEC_ID_H264 : id);
}

// std::thread's way to the system.
#define START_THREAD(prefix) \
    prefix##_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE
void START_THREAD(__real_)(std::thread* self, void* state, void (*depend)());
void START_THREAD(__wrap_)(std::thread* self, void* state, void (*depend)()) {
    if (PipelineFaults::threadsUntilThrow > 0 && --PipelineFaults::threadsUntilThrow == 0) {
        throw std::system_error(EAGAIN, std::generic_category());
    }
    START_THREAD(__real_)(self, state, depend);
    if (PipelineFaults::atThread) {
        PipelineFaults::atThread();
    }
}

// BaseThread::startThread.
bool __real__ZN4kelp10BaseThread11startThreadEv(kelp::BaseThread* self);
bool __wrap__ZN4kelp10BaseThread11startThreadEv(kelp::BaseThread* self) {
    if (PipelineFaults::threadsUntilNone > 0 && --PipelineFaults::threadsUntilNone == 0) {
        return false;
    }
    if (PipelineFaults::atStage) {
        PipelineFaults::atStage();
    }
    return __real__ZN4kelp10BaseThread11startThreadEv(self);
}

void* __real_soundtouch_createInstance();
void* __wrap_soundtouch_createInstance() {
    return PipelineFaults::noSoundTouch ? nullptr : __real_soundtouch_createInstance();
}

void __real_soundtouch_setTempo(void* handle, float tempo);
void __wrap_soundtouch_setTempo(void* handle, float tempo) {
    {
        std::lock_guard lock(PipelineFaults::temposMutex);
        PipelineFaults::tempos.push_back(tempo);
    }
    if (PipelineFaults::atTempo) {
        PipelineFaults::atTempo();
    }
    __real_soundtouch_setTempo(handle, tempo);
}

}  // extern "C"
