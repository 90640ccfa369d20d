#include "faults/failing_allocations.h"

#include <SDL.h>
#include <SoundTouchDLL.h>

#include <atomic>
#include <cstdlib>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace kelp::test {

namespace {

std::atomic<FailingAllocations::Of> g_which{FailingAllocations::Of::Nothing};
std::atomic<int64_t> g_number{0};
std::atomic<int64_t> g_count{0};

enum class Thread { Other, Host, InWindow };
thread_local Thread t_thread = Thread::Other;
// SoundTouch uses operator new as well. One that fails in there leaves its buffers corrupted: it doesn't count.
thread_local int t_inSoundTouch = 0;

bool fails() {
    return ++g_count == g_number;
}

bool newFails() {
    if (t_inSoundTouch > 0) {
        return false;
    }
    switch (g_which.load(std::memory_order_relaxed)) {
        case FailingAllocations::Of::WindowThreads:
            return t_thread == Thread::InWindow && fails();
        case FailingAllocations::Of::OtherThreads:
            return t_thread == Thread::Other && fails();
        default:
            return false;
    }
}

bool libraryFails() {
    return g_which == FailingAllocations::Of::Libraries && fails();
}

struct InSoundTouch {
    InSoundTouch() { ++t_inSoundTouch; }
    ~InSoundTouch() { --t_inSoundTouch; }
};

void* allocate(std::size_t size) noexcept {
    return newFails() ? nullptr : std::malloc(size ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    if (void* memory = allocate(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

}  // namespace

void FailingAllocations::arm(Of which, int64_t number) {
    t_thread = Thread::Host;
    g_which = Of::Nothing;
    g_count = 0;
    g_number = number;
    g_which = which;
}

int64_t FailingAllocations::count() {
    return g_count;
}

bool FailingAllocations::failed() {
    return g_number > 0 && g_count >= g_number;
}

FailingAllocations::Window::Window() {
    t_thread = Thread::InWindow;
}

FailingAllocations::Window::~Window() {
    t_thread = Thread::Host;
}

}  // namespace kelp::test

using kelp::test::allocate;
using kelp::test::allocateOrThrow;
using kelp::test::libraryFails;

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

// A function that gives an address, or an error number, of the same name and arguments; `failure` says how it fails.
#define KELP_WRAP(result, name, parameters, arguments, failure)      \
    result __real_##name parameters;                                 \
    result __wrap_##name parameters {                                \
        return libraryFails() ? (failure) : __real_##name arguments; \
    }

extern "C" {

KELP_WRAP(AVFrame*, av_frame_alloc, (), (), nullptr)
KELP_WRAP(AVFormatContext*, avformat_alloc_context, (), (), nullptr)
KELP_WRAP(AVCodecContext*, avcodec_alloc_context3, (const AVCodec* codec), (codec), nullptr)
KELP_WRAP(AVCodecParameters*, avcodec_parameters_alloc, (), (), nullptr)
KELP_WRAP(int, avcodec_parameters_copy, (AVCodecParameters * to, const AVCodecParameters* from), (to, from),
          AVERROR(ENOMEM))
KELP_WRAP(int, avcodec_parameters_to_context, (AVCodecContext * to, const AVCodecParameters* from), (to, from),
          AVERROR(ENOMEM))
KELP_WRAP(int, avcodec_open2, (AVCodecContext * context, const AVCodec* codec, AVDictionary** options),
          (context, codec, options), AVERROR(ENOMEM))
KELP_WRAP(int, avcodec_send_packet, (AVCodecContext * context, const AVPacket* packet), (context, packet),
          AVERROR(ENOMEM))
KELP_WRAP(int, avcodec_receive_frame, (AVCodecContext * context, AVFrame* frame), (context, frame), AVERROR(ENOMEM))
KELP_WRAP(int, av_bsf_alloc, (const AVBitStreamFilter* filter, AVBSFContext** context), (filter, context),
          AVERROR(ENOMEM))
KELP_WRAP(int, av_bsf_init, (AVBSFContext * context), (context), AVERROR(ENOMEM))
KELP_WRAP(int, av_bsf_receive_packet, (AVBSFContext * context, AVPacket* packet), (context, packet), AVERROR(ENOMEM))
KELP_WRAP(int, avformat_find_stream_info, (AVFormatContext * context, AVDictionary** options), (context, options),
          AVERROR(ENOMEM))
KELP_WRAP(int, av_read_frame, (AVFormatContext * context, AVPacket* packet), (context, packet), AVERROR(ENOMEM))
KELP_WRAP(int, swr_init, (SwrContext * context), (context), AVERROR(ENOMEM))
KELP_WRAP(int, swr_convert, (SwrContext * context, uint8_t** out, int outCount, const uint8_t** in, int inCount),
          (context, out, outCount, in, inCount), AVERROR(ENOMEM))
KELP_WRAP(SDL_AudioDeviceID, SDL_OpenAudioDevice,
          (const char* device, int capture, const SDL_AudioSpec* wanted, SDL_AudioSpec* obtained, int changes),
          (device, capture, wanted, obtained, changes), SDL_OutOfMemory() * 0U)

#define KELP_WRAP_SOUNDTOUCH(result, name, parameters, arguments) \
    result __real_soundtouch_##name parameters;                   \
    result __wrap_soundtouch_##name parameters {                  \
        const kelp::test::InSoundTouch guard;                     \
        return __real_soundtouch_##name arguments;                \
    }

void* __real_soundtouch_createInstance();
void* __wrap_soundtouch_createInstance() {
    const kelp::test::InSoundTouch guard;
    return libraryFails() ? nullptr : __real_soundtouch_createInstance();
}
KELP_WRAP_SOUNDTOUCH(void, destroyInstance, (void* h), (h))
KELP_WRAP_SOUNDTOUCH(int, setSampleRate, (void* h, unsigned int rate), (h, rate))
KELP_WRAP_SOUNDTOUCH(int, setChannels, (void* h, unsigned int channels), (h, channels))
KELP_WRAP_SOUNDTOUCH(void, setPitch, (void* h, float pitch), (h, pitch))
KELP_WRAP_SOUNDTOUCH(void, setTempo, (void* h, float tempo), (h, tempo))
KELP_WRAP_SOUNDTOUCH(int, putSamples_i16, (void* h, const short* samples, unsigned int count), (h, samples, count))
KELP_WRAP_SOUNDTOUCH(unsigned int, receiveSamples_i16, (void* h, short* samples, unsigned int count),
                     (h, samples, count))
KELP_WRAP_SOUNDTOUCH(int, flush, (void* h), (h))

// These free what they were given when they fail.
int __real_avformat_open_input(AVFormatContext** context, const char* url, const AVInputFormat* format,
                               AVDictionary** options);
int __wrap_avformat_open_input(AVFormatContext** context, const char* url, const AVInputFormat* format,
                               AVDictionary** options) {
    if (libraryFails()) {
        avformat_free_context(*context);
        *context = nullptr;
        return AVERROR(ENOMEM);
    }
    return __real_avformat_open_input(context, url, format, options);
}

int __real_swr_alloc_set_opts2(SwrContext** context, const AVChannelLayout* outLayout, AVSampleFormat outFormat,
                               int outRate, const AVChannelLayout* inLayout, AVSampleFormat inFormat, int inRate,
                               int logOffset, void* logContext);
int __wrap_swr_alloc_set_opts2(SwrContext** context, const AVChannelLayout* outLayout, AVSampleFormat outFormat,
                               int outRate, const AVChannelLayout* inLayout, AVSampleFormat inFormat, int inRate,
                               int logOffset, void* logContext) {
    if (libraryFails()) {
        swr_free(context);
        return AVERROR(ENOMEM);
    }
    return __real_swr_alloc_set_opts2(context, outLayout, outFormat, outRate, inLayout, inFormat, inRate, logOffset,
                                      logContext);
}

SwsContext* __real_sws_getCachedContext(SwsContext* context, int fromWidth, int fromHeight, AVPixelFormat fromFormat,
                                        int toWidth, int toHeight, AVPixelFormat toFormat, int flags, SwsFilter* from,
                                        SwsFilter* to, const double* parameters);
SwsContext* __wrap_sws_getCachedContext(SwsContext* context, int fromWidth, int fromHeight, AVPixelFormat fromFormat,
                                        int toWidth, int toHeight, AVPixelFormat toFormat, int flags, SwsFilter* from,
                                        SwsFilter* to, const double* parameters) {
    if (libraryFails()) {
        sws_freeContext(context);
        return nullptr;
    }
    return __real_sws_getCachedContext(context, fromWidth, fromHeight, fromFormat, toWidth, toHeight, toFormat, flags,
                                       from, to, parameters);
}

}  // extern "C"
