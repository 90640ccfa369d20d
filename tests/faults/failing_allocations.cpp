#include "faults/failing_allocations.h"

#include <SDL.h>
#include <SoundTouchDLL.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string_view>

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
std::atomic<const char*> g_failedCall{""};

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

// `call` is the name of the function that asks.
bool libraryFails(const char* call) {
    if (g_which != FailingAllocations::Of::Libraries || !fails()) {
        return false;
    }
    g_failedCall = call;
    return true;
}

struct Code {
    uintptr_t begin = 0;
    uintptr_t end = 0;
};
std::array<Code, 16> g_ffmpegCode;  // written once, before g_ffmpegCodes
std::atomic<size_t> g_ffmpegCodes{0};

int noteFFmpegCode(dl_phdr_info* info, size_t, void* count) {
    const std::string_view path = info->dlpi_name;
    const std::string_view file = path.substr(path.rfind('/') + 1);
    for (const std::string_view library :
         {"libavformat.", "libavcodec.", "libavutil.", "libswscale.", "libswresample."}) {
        if (!file.starts_with(library)) {
            continue;
        }
        for (int i = 0; i < info->dlpi_phnum; ++i) {
            const auto& segment = info->dlpi_phdr[i];
            auto& size = *static_cast<size_t*>(count);
            if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) && size < g_ffmpegCode.size()) {
                const uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
                g_ffmpegCode[size++] = {begin, begin + segment.p_memsz};
            }
        }
    }
    return 0;
}

void findFFmpegCode() {
    static std::once_flag once;
    std::call_once(once, [] {
        size_t count = 0;
        dl_iterate_phdr(noteFFmpegCode, &count);
        g_ffmpegCodes = count;
    });
}

std::array<void*, 24> g_failureCalls;  // written once, before g_failureCallCount
std::atomic<int> g_failureCallCount{0};

#ifndef __SANITIZE_THREAD__

bool insideFails(const void* caller) {
    if (g_which != FailingAllocations::Of::InsideFFmpeg || !FailingAllocations::isInFFmpeg(caller) || !fails()) {
        return false;
    }
    g_failureCallCount = backtrace(g_failureCalls.data(), static_cast<int>(g_failureCalls.size()));
    return true;
}

// The definition behind this program's own: the system's, or a sanitizer's.
template <typename Function>
Function* next(std::atomic<Function*>& known, const char* name) {
    Function* function = known.load(std::memory_order_relaxed);
    if (!function) {
        function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
        known.store(function, std::memory_order_relaxed);
    }
    return function;
}

using PosixMemalign = int(void**, size_t, size_t);
using Realloc = void*(void*, size_t);
std::atomic<PosixMemalign*> g_posixMemalign{nullptr};
std::atomic<Realloc*> g_realloc{nullptr};

#endif

struct InSoundTouch {
    InSoundTouch() { ++t_inSoundTouch; }
    ~InSoundTouch() { --t_inSoundTouch; }
};

void* allocate(std::size_t size) noexcept {
    return newFails() ? nullptr : std::malloc(size ? size : 1);
}

void* allocateOrNull(std::size_t size) noexcept {
    void* const memory = allocate(size);
    if (!memory) {
        g_failedCall = "new (std::nothrow)";
    }
    return memory;
}

void* allocateOrThrow(std::size_t size) {
    if (void* memory = allocate(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

}  // namespace

void FailingAllocations::arm(Of which, int64_t number) {
    findFFmpegCode();
    t_thread = Thread::Host;
    g_which = Of::Nothing;
    g_count = 0;
    g_failedCall = "";
    g_number = number;
    g_which = which;
}

int64_t FailingAllocations::count() {
    return g_count;
}

const char* FailingAllocations::failedCall() {
    return g_failedCall;
}

bool FailingAllocations::failed() {
    return g_number > 0 && g_count >= g_number;
}

int FailingAllocations::callsOfFailure(void** calls, int size) {
    const int count = std::min(size, g_failureCallCount.load(std::memory_order_acquire));
    std::copy_n(g_failureCalls.begin(), count, calls);
    return count;
}

bool FailingAllocations::isInFFmpeg(const void* address) {
    const auto place = reinterpret_cast<uintptr_t>(address);
    const size_t count = g_ffmpegCodes.load(std::memory_order_acquire);
    for (size_t i = 0; i < count; ++i) {
        if (g_ffmpegCode[i].begin <= place && place < g_ffmpegCode[i].end) {
            return true;
        }
    }
    return false;
}

FailingAllocations::Window::Window() {
    t_thread = Thread::InWindow;
}

FailingAllocations::Window::~Window() {
    t_thread = Thread::Host;
}

}  // namespace kelp::test

using kelp::test::allocateOrNull;
using kelp::test::allocateOrThrow;
using kelp::test::libraryFails;

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size);
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

// ThreadSanitizer ends in its own interceptors when another definition stands before them.
#ifndef __SANITIZE_THREAD__

// All of FFmpeg's memory comes from these two. The libraries find them here, ahead of the system's: libavutil calls its
// own av_malloc without looking for another one, so that a definition of that name would miss most of what it takes.
extern "C" {

[[gnu::visibility("default")]] int posix_memalign(void** memory, size_t alignment, size_t size) noexcept {
    if (kelp::test::insideFails(__builtin_return_address(0))) {
        return ENOMEM;
    }
    return kelp::test::next(kelp::test::g_posixMemalign, "posix_memalign")(memory, alignment, size);
}

[[gnu::visibility("default")]] void* realloc(void* memory, size_t size) noexcept {
    if (kelp::test::insideFails(__builtin_return_address(0))) {
        errno = ENOMEM;
        return nullptr;
    }
    return kelp::test::next(kelp::test::g_realloc, "realloc")(memory, size);
}

}  // extern "C"

#endif

// A function that gives an address, or an error number, of the same name and arguments; `failure` says how it fails.
#define KELP_WRAP(result, name, parameters, arguments, failure)           \
    result __real_##name parameters;                                      \
    result __wrap_##name parameters {                                     \
        return libraryFails(#name) ? (failure) : __real_##name arguments; \
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
KELP_WRAP(AVPacket*, av_packet_clone, (const AVPacket* packet), (packet), nullptr)
KELP_WRAP(int, avformat_alloc_output_context2,
          (AVFormatContext * *context, const AVOutputFormat* format, const char* name, const char* path),
          (context, format, name, path), AVERROR(ENOMEM))
KELP_WRAP(AVStream*, avformat_new_stream, (AVFormatContext * context, const AVCodec* codec), (context, codec), nullptr)
KELP_WRAP(int, avio_open, (AVIOContext * *context, const char* path, int flags), (context, path, flags),
          AVERROR(ENOMEM))
KELP_WRAP(int, avformat_write_header, (AVFormatContext * context, AVDictionary** options), (context, options),
          AVERROR(ENOMEM))
KELP_WRAP(int, av_interleaved_write_frame, (AVFormatContext * context, AVPacket* packet), (context, packet),
          AVERROR(ENOMEM))
KELP_WRAP(int, av_write_trailer, (AVFormatContext * context), (context), AVERROR(ENOMEM))
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
    return libraryFails("soundtouch_createInstance") ? nullptr : __real_soundtouch_createInstance();
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
    if (libraryFails("avformat_open_input")) {
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
    if (libraryFails("swr_alloc_set_opts2")) {
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
    if (libraryFails("sws_getCachedContext")) {
        sws_freeContext(context);
        return nullptr;
    }
    return __real_sws_getCachedContext(context, fromWidth, fromHeight, fromFormat, toWidth, toHeight, toFormat, flags,
                                       from, to, parameters);
}

}  // extern "C"
