#include "present/sdl_audio_output.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>

#include "kelp_player/log.h"
#include "present/sdl_thread_storage.h"
#include "runtime/cycle_buffer_wrapper.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr char kTag[] = "SDLAudioOutput";
constexpr int kPatienceMs = 250;  // with a device that is watched; it asks for samples every 21 ms or so

// 0 for a form that the device can't take.
SDL_AudioFormat sdlFormat(int sampleFormat) {
    constexpr SDL_AudioFormat kFormats[] = {AUDIO_U8, AUDIO_S16LSB, AUDIO_S32LSB, AUDIO_F32LSB};
    return sampleFormat >= 0 && sampleFormat < static_cast<int>(std::size(kFormats)) ? kFormats[sampleFormat] : 0;
}

// Truncated toward zero and held in the range; a volume that is no number gives silence.
int16_t scaleSample(int16_t sample, float volume) {
    const float scaled = static_cast<float>(sample) * volume;
    if (std::isnan(scaled)) {
        return 0;
    }
    return static_cast<int16_t>(
        std::clamp<float>(scaled, std::numeric_limits<int16_t>::min(), std::numeric_limits<int16_t>::max()));
}

}  // namespace

SDLAudioOutput::SDLAudioOutput(Device device) : device_(device), cycleBuffer_(std::make_shared<CycleBufferWrapper>()) {
}

// A device that is still open would call into an object that is gone.
SDLAudioOutput::~SDLAudioOutput() {
    closeDevice();
}

bool SDLAudioOutput::init(AudioOutputSpec spec) {
    const bool isSilent = device_ == Device::TriedAgain;
    if (!isSilent) {
        Log::Info(kTag, "%s, ch:%d, freg:%d, fmt:%d\n", "init", spec.channels, spec.sampleRate, spec.sampleFormat);
    }
    freeSdlStorageAtThreadEnd();
    cycleBuffer_->init(kRingBytes + 1, cycleBufferWrapperCallback, this, CycleBufferWrapper::CallingOff::Told);
    if (device_ != Device::WaitedFor) {
        cycleBuffer_->setPatience(kPatienceMs);
    }

    wantedSpec_.channels = static_cast<Uint8>(spec.channels);
    wantedSpec_.freq = spec.sampleRate;
    wantedSpec_.samples = kDeviceBufferSamples;
    wantedSpec_.callback = sdlAudioCallback;
    wantedSpec_.userdata = this;
    if (wantedSpec_.freq < 1 || wantedSpec_.channels == 0) {
        Log::Error(kTag, "Invalid sample rate or channel count!\n");
        return false;
    }
    const SDL_AudioFormat format = sdlFormat(spec.sampleFormat);
    if (format == 0) {
        Log::Error(kTag, "Invalid sample format!\n");
        return false;
    }
    wantedSpec_.format = format;
    frameBytes_ = wantedSpec_.channels * SDL_AUDIO_BITSIZE(format) / 8;

    SDL_AudioSpec obtained{};
    const SDL_AudioDeviceID device =
        SDL_OpenAudioDevice(nullptr, /*iscapture=*/0, &wantedSpec_, &obtained,
                            /*allowed_changes=*/SDL_AUDIO_ALLOW_FREQUENCY_CHANGE | SDL_AUDIO_ALLOW_CHANNELS_CHANGE);
    if (device == 0) {
        if (!isSilent) {
            Log::Error(kTag, "SDL_OpenAudioDevice failed! %s\n", SDL_GetError());
        }
        return false;
    }
    openClock(obtained);
    {
        std::lock_guard lock(deviceMutex_);
        deviceId_ = device;
    }
    if (closed_) {
        // `close` came while the device was being opened, and found none.
        closeDevice();
    }
    if (obtained.format != wantedSpec_.format) {
        if (!isSilent) {
            Log::Error(kTag, "SDL advised audio format %d is not supported!\n", obtained.format);
        }
        return false;
    }
    pauseDevice(false);
    Log::Info(kTag, "wanted spec:(%d:%d:%d), obtained spec:(%d:%d:%d)\n", wantedSpec_.channels, wantedSpec_.freq,
              wantedSpec_.format, obtained.channels, obtained.freq, obtained.format);
    return true;
}

// The ring's bytes are taken as they are, so many of them per second as the device plays of its own.
void SDLAudioOutput::openClock(const SDL_AudioSpec& obtained) {
    const int deviceFrameBytes = obtained.channels * SDL_AUDIO_BITSIZE(obtained.format) / 8;
    clock_.open(obtained.samples * deviceFrameBytes / frameBytes_,
                static_cast<double>(obtained.freq) * deviceFrameBytes / frameBytes_);
}

bool SDLAudioOutput::fillFrame(std::shared_ptr<AudioFrameInfo> frame) {
    if (const int frameBytes = frameBytes_; frameBytes > 0) {
        clock_.handOver(frame->dataSize / static_cast<unsigned>(frameBytes));
    }
    if (wantedSpec_.format == AUDIO_S16LSB) {
        applyVolume(frame.get());
    }
    const auto size = static_cast<int>(frame->dataSize);
    const int written = cycleBuffer_->write(frame->buffer->data, size);
    if (flushRequested_) {
        // In this order: until the ring is empty, the device stays silent.
        cycleBuffer_->reset();
        clock_.drop(KelpTime::getTimeUs());
        flushRequested_ = false;
        return true;
    }
    return device_ == Device::WaitedFor || ((written < 0 || written == size) && !isDeviceGone());
}

// One that SDL has lost is asked for samples as before, and stopped.
bool SDLAudioOutput::isDeviceGone() {
    std::lock_guard lock(deviceMutex_);
    return deviceId_ != 0 && SDL_GetAudioDeviceStatus(deviceId_) == SDL_AUDIO_STOPPED;
}

void SDLAudioOutput::applyVolume(AudioFrameInfo* frame) {
    unsigned char* bytes = frame->buffer->data;
    const size_t count = frame->dataSize / sizeof(int16_t);
    for (size_t i = 0; i < count; ++i, bytes += sizeof(int16_t)) {
        int16_t sample;
        std::memcpy(&sample, bytes, sizeof(sample));
        sample = scaleSample(sample, volume_.load(std::memory_order_relaxed));
        std::memcpy(bytes, &sample, sizeof(sample));
    }
}

int SDLAudioOutput::getBufferDuration() {
    const int sampleBytes = SDL_AUDIO_BITSIZE(wantedSpec_.format) / 8;
    // No format stands here after an `init` that refused it.
    if (wantedSpec_.channels == 0 || wantedSpec_.freq <= 0 || sampleBytes == 0) {
        return 0;
    }
    const int ringMs = cycleBuffer_->availableReadSize() * 1000 / wantedSpec_.channels / wantedSpec_.freq / sampleBytes;
    return ringMs + kDeviceBufferSamples * 1000 / wantedSpec_.freq;
}

bool SDLAudioOutput::pause(bool paused) {
    paused_ = paused;
    pauseDevice(paused);
    if (device_ != Device::WaitedFor) {
        cycleBuffer_->setPatience(paused ? Rest::kForeverMs : kPatienceMs);
    }
    return true;
}

void SDLAudioOutput::pauseDevice(bool paused) {
    std::lock_guard lock(deviceMutex_);
    if (deviceId_ != 0) {
        SDL_PauseAudioDevice(deviceId_, paused);
    }
}

void SDLAudioOutput::close() {
    Log::Debug(kTag, "close\n");
    closed_ = true;
    cycleBuffer_->abort(true);
    closeDevice();
}

void SDLAudioOutput::closeDevice() {
    std::lock_guard lock(deviceMutex_);
    if (deviceId_ != 0) {
        SDL_CloseAudioDevice(deviceId_);
        deviceId_ = 0;
    }
}

void SDLAudioOutput::flush() {
    Log::Debug(kTag, "flush\n");
    ++flushes_;
    flushRequested_ = true;
    cycleBuffer_->lookAgain();
}

bool SDLAudioOutput::setVolume(float volume) {
    volume_.store(volume, std::memory_order_relaxed);
    return true;
}

HeardSound SDLAudioOutput::heard(int64_t nowUs) {
    return clock_.heard(nowUs);
}

void SDLAudioOutput::sdlAudioCallback(void* userdata, unsigned char* stream, int len) {
    auto* output = static_cast<SDLAudioOutput*>(userdata);
    if (!output) {
        std::memset(stream, 0, static_cast<size_t>(len));
        return;
    }
    const int64_t nowUs = KelpTime::getTimeUs();
    const int got = output->takeSound(stream, len);
    if (const int frameBytes = output->frameBytes_; frameBytes > 0) {
        output->clock_.take(got / frameBytes, nowUs);
    }
}

int SDLAudioOutput::takeSound(unsigned char* stream, int len) {
    if (paused_) {
        std::memset(stream, 0, static_cast<size_t>(len));
        return 0;
    }
    const int got = std::max(cycleBuffer_->read_noblock(stream, len), 0);
    std::memset(stream + got, 0, static_cast<size_t>(len - got));
    watchForGap(got >= len);
    if (got > 0 && got != len) {
        Log::Debug(kTag, "%s, req:%d, got:%d\n", "sdlAudioCallback", len, got);
    }
    return got;
}

// Counted at its end: the end of the stream is none.
void SDLAudioOutput::watchForGap(bool isWhole) {
    if (!isWhole) {
        if (hadSound_ && !inGap_) {
            inGap_ = true;
            gapFlushes_ = flushes_;
        }
        return;
    }
    underruns_.add(inGap_ && gapFlushes_ == flushes_);
    hadSound_ = true;
    inGap_ = false;
}

int SDLAudioOutput::cycleBufferWrapperCallback(void* opaque) {
    const auto* output = static_cast<SDLAudioOutput*>(opaque);
    return output && (output->closed_ || output->flushRequested_) ? 1 : 0;
}

}  // namespace kelp
