#include "present/sdl_audio_output.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <utility>

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

// SDL looks for a free place for a device long before it takes that place: openings that meet would share it.
std::mutex& openingMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

SDLAudioOutput::SDLAudioOutput(Device device, SampleGain::Changes volumeChanges, int blockFrames)
    : device_(device),
      blockFrames_(blockFrames),
      cycleBuffer_(std::make_shared<CycleBufferWrapper>()),
      gain_(volumeChanges) {
}

// A device that is still open would call into an object that is gone.
SDLAudioOutput::~SDLAudioOutput() {
    closeDevice();
}

bool SDLAudioOutput::init(AudioOutputSpec spec) {
    std::lock_guard opening(openMutex_);
    const bool isSilent = device_ == Device::TriedAgain;
    if (!isSilent) {
        Log::Info(kTag, "%s, ch:%d, freg:%d, fmt:%d\n", "init", spec.channels, spec.sampleRate, spec.sampleFormat);
    }
    cycleBuffer_->init(kRingBytes + 1, cycleBufferWrapperCallback, this, CycleBufferWrapper::CallingOff::Told);
    if (device_ != Device::WaitedFor) {
        cycleBuffer_->setPatience(kPatienceMs);
    }

    wantedSpec_.channels = static_cast<Uint8>(spec.channels);
    wantedSpec_.freq = spec.sampleRate;
    wantedSpec_.samples = static_cast<Uint16>(blockFrames_);
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

    gain_.open(wantedSpec_.channels, wantedSpec_.freq);
    isInitialized_ = true;

    SDL_AudioSpec obtained{};
    openedName_ = deviceName_;
    SDL_AudioDeviceID device = openDevice(openedName_, obtained);
    if (device == 0 && !deviceName_.empty()) {
        if (!isSilent) {
            Log::Warn(kTag, "the sound device \"%s\" can't be opened: %s, taking the default one\n",
                      deviceName_.c_str(), SDL_GetError());
        }
        openedName_.clear();
        device = openDevice(openedName_, obtained);
    }
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

SDL_AudioDeviceID SDLAudioOutput::openDevice(const std::string& name, SDL_AudioSpec& obtained) const {
    freeSdlStorageAtThreadEnd();
    std::lock_guard lock(openingMutex());
    return SDL_OpenAudioDevice(name.empty() ? nullptr : name.c_str(), /*iscapture=*/0, &wantedSpec_, &obtained,
                               /*allowed_changes=*/SDL_AUDIO_ALLOW_FREQUENCY_CHANGE | SDL_AUDIO_ALLOW_CHANNELS_CHANGE);
}

bool SDLAudioOutput::setDevice(const std::string& name) {
    std::lock_guard opening(openMutex_);
    if (isInitialized_ && name != openedName_) {
        SDL_AudioSpec obtained{};
        const SDL_AudioDeviceID device = openDevice(name, obtained);
        const bool isRightForm = obtained.format == wantedSpec_.format;
        if (device == 0 || !isRightForm) {
            Log::Warn(kTag, "the sound device \"%s\" can't be opened: %s, going on as before\n",
                      name.empty() ? "default" : name.c_str(), device == 0 ? SDL_GetError() : "it takes other samples");
            if (device != 0) {
                SDL_CloseAudioDevice(device);
            }
            return false;
        }
        Log::Info(kTag, "going on with the sound device \"%s\"\n", name.empty() ? "default" : name.c_str());
        changeTo(device, obtained);
        openedName_ = name;
    }
    deviceName_ = name;
    return true;
}

// A pause waits for a callback that runs, so the two devices never ask at the same time, and the clock is free
// meanwhile.
void SDLAudioOutput::changeTo(SDL_AudioDeviceID device, const SDL_AudioSpec& obtained) {
    SDL_AudioDeviceID leaving = device;
    {
        std::lock_guard lock(deviceMutex_);
        // A close that comes later closes this one.
        if (!closed_) {
            leaving = std::exchange(deviceId_, device);
            if (leaving != 0) {
                SDL_PauseAudioDevice(leaving, 1);
            }
            openClock(obtained);
            SDL_PauseAudioDevice(device, paused_);
        }
    }
    if (leaving != 0) {
        SDL_CloseAudioDevice(leaving);
    }
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
        gain_.apply(frame->buffer->data, frame->dataSize / sizeof(int16_t));
    }
    const auto size = static_cast<int>(frame->dataSize);
    const int written = cycleBuffer_->write(frame->buffer->data, size);
    if (flushRequested_) {
        // In this order: until the ring is empty, the device stays silent.
        cycleBuffer_->reset();
        clock_.drop(KelpTime::getSteadyUs());
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

int SDLAudioOutput::getBufferDuration() {
    const int sampleBytes = SDL_AUDIO_BITSIZE(wantedSpec_.format) / 8;
    // No format stands here after an `init` that refused it.
    if (wantedSpec_.channels == 0 || wantedSpec_.freq <= 0 || sampleBytes == 0) {
        return 0;
    }
    const int ringMs = cycleBuffer_->availableReadSize() * 1000 / wantedSpec_.channels / wantedSpec_.freq / sampleBytes;
    return ringMs + blockFrames_ * 1000 / wantedSpec_.freq;
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
    freeSdlStorageAtThreadEnd();
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
    freeSdlStorageAtThreadEnd();
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
    gain_.setVolume(volume);
    return true;
}

void SDLAudioOutput::setMuted(bool muted) {
    gain_.setMuted(muted);
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
    const int64_t nowUs = KelpTime::getSteadyUs();
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
