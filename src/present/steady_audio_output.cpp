#include "present/steady_audio_output.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "kelp_player/log.h"
#include "present/sdl_thread_storage.h"
#include "runtime/kelp_time.h"

namespace kelp {

namespace {

constexpr char kTag[] = "SteadyAudioOutput";
constexpr int kFirstTryMs = 250;
constexpr int64_t kMaxHoleUs = 300'000;  // before it is noticed that a device has stopped
constexpr int64_t kHiccupUs = 40'000;    // for which a device that plays on may have nothing to play
constexpr int kMakeUpPace = 2;           // of the clock that goes on without it, until it is where it should be

int frameBytes(const AudioOutputSpec& spec) {
    constexpr int kSampleBytes[] = {1, 2, 4, 4};
    return spec.channels * kSampleBytes[spec.sampleFormat & 3];
}

std::shared_ptr<AudioFrameInfo> makeSilence(int64_t bytes) {
    auto frame = std::make_shared<AudioFrameInfo>();
    frame->buffer = std::make_shared<FrameBuffer>();
    frame->buffer->data = new unsigned char[static_cast<size_t>(bytes)]();
    frame->buffer->size = frame->dataSize = static_cast<unsigned int>(bytes);
    return frame;
}

}  // namespace

SteadyAudioOutput::SteadyAudioOutput(AudioDeviceSearch::MakeOutput makeOutput, int blockFrames)
    : blockFrames_(blockFrames),
      search_([this, makeOutput = std::move(makeOutput)](AudioDeviceSearch::Attempt attempt) {
          auto output = makeOutput(attempt);
          output->setDevice(giveName());
          return output;
      }) {
}

SteadyAudioOutput::~SteadyAudioOutput() {
    SteadyAudioOutput::close();
}

bool SteadyAudioOutput::init(AudioOutputSpec spec) {
    freeSdlStorageAtThreadEnd();
    spec_ = spec;
    search_.begin(spec, nullptr);
    search_.waitForFirst(kFirstTryMs);
    if (const auto device = search_.take()) {
        take(device);
    } else {
        Log::Warn(kTag, "there is no sound device, going on in silence\n");
    }
    return true;
}

bool SteadyAudioOutput::fillFrame(std::shared_ptr<AudioFrameInfo> frame) {
    auto device = device_.load();
    if (!device && (device = search_.take())) {
        Log::Warn(kTag, "there is a sound device, going on with it\n");
        take(device);
    }
    const int64_t us = durationOf(frame->dataSize);
    {
        std::lock_guard lock(silenceMutex_);
        handedBytes_ += frame->dataSize;
    }
    if (device) {
        if (device->fillFrame(std::move(frame))) {
            flushRequested_ = false;  // the device has seen to it, or will
        } else {
            lose(std::move(device));
        }
        return true;
    }
    {
        std::lock_guard lock(silenceMutex_);
        silence_.add(us, KelpTime::getSteadyUs());
    }
    waitInSilence();
    return true;
}

int SteadyAudioOutput::getBufferDuration() {
    if (const auto device = device_.load()) {
        return device->getBufferDuration();
    }
    std::lock_guard lock(silenceMutex_);
    return static_cast<int>(silence_.leftUs(KelpTime::getSteadyUs()) / 1000) + deviceBufferMs();
}

bool SteadyAudioOutput::pause(bool paused) {
    paused_ = paused;
    {
        std::lock_guard lock(silenceMutex_);
        const int64_t nowUs = KelpTime::getSteadyUs();
        silence_.pause(paused, nowUs);
        resumedUs_ = nowUs;
        isLeadIn_ = false;
    }
    endRest();
    if (const auto device = device_.load()) {
        device->pause(paused);
    }
    return true;
}

void SteadyAudioOutput::close() {
    closed_ = true;
    endRest();
    if (const auto device = device_.load()) {
        device->close();
    }
    search_.end();
}

void SteadyAudioOutput::flush() {
    flushRequested_ = true;
    endRest();
    if (const auto device = device_.load()) {
        device->flush();
    }
}

bool SteadyAudioOutput::setVolume(float volume) {
    volume_ = volume;
    const auto device = device_.load();
    return !device || device->setVolume(volume);
}

void SteadyAudioOutput::setMuted(bool muted) {
    isMuted_ = muted;
    if (const auto device = device_.load()) {
        device->setMuted(muted);
    }
}

bool SteadyAudioOutput::setDevice(const std::string& name) {
    std::string before = name;
    {
        std::lock_guard lock(nameMutex_);
        deviceName_.swap(before);
    }
    const auto device = device_.load();
    if (!device || device->setDevice(name)) {
        return true;
    }
    std::lock_guard lock(nameMutex_);
    deviceName_ = std::move(before);
    return false;
}

std::string SteadyAudioOutput::deviceName() {
    std::lock_guard lock(nameMutex_);
    return deviceName_;
}

std::string SteadyAudioOutput::giveName() {
    std::lock_guard lock(nameMutex_);
    return givenName_ = deviceName_;
}

std::string SteadyAudioOutput::givenName() {
    std::lock_guard lock(nameMutex_);
    return givenName_;
}

HeardSound SteadyAudioOutput::heard(int64_t nowUs) {
    const double bytes = std::max(frameBytes(spec_), 1);
    std::lock_guard lock(silenceMutex_);
    if (const auto device = device_.load()) {
        return heardOf(*device, nowUs);
    }
    HeardSound heard;
    heard.delayUs = heard.spareUs = silence_.leftUs(nowUs);
    heard.dryFromUs = silence_.endUs();
    heard.framesPerSecond = spec_.sampleRate;
    heard.frames = static_cast<double>(handedBytes_ - bytesOf(heard.delayUs)) / bytes;
    return heard;
}

HeardSound SteadyAudioOutput::heardOf(IAudioOutput& device, int64_t nowUs) {
    const double bytes = std::max(frameBytes(spec_), 1);
    HeardSound heard = device.heard(nowUs);
    heard.frames += static_cast<double>(deviceBytes_) / bytes;
    if (isLeadIn_) {
        const double line = static_cast<double>(takenBytes_ + bytesOf(nowUs - takenUs_)) / bytes;
        isLeadIn_ = line < heard.frames;
        heard.frames = std::min(heard.frames, line);
    }
    const int64_t owedUs = overdueUs(heard, nowUs);
    const int64_t holeUs = owedUs - int64_t{deviceBufferMs()} * 1000;
    if (holeUs > kHiccupUs) {
        const int64_t goneOnUs = std::min(kMakeUpPace * (holeUs - kHiccupUs), holeUs);
        const double handed = static_cast<double>(handedBytes_) / bytes;
        heard.frames = std::min(heard.frames + static_cast<double>(bytesOf(goneOnUs)) / bytes, handed);
        heard.dryFromUs = nowUs + heard.delayUs - owedUs;
        heard.delayUs = std::max<int64_t>(heard.delayUs - owedUs, 0);
    }
    return heard;
}

int64_t SteadyAudioOutput::overdueUs(const HeardSound& heard, int64_t nowUs) const {
    return paused_ ? 0 : std::clamp<int64_t>(nowUs - resumedUs_, 0, heard.overdueUs);
}

void SteadyAudioOutput::take(const std::shared_ptr<IAudioOutput>& device) {
    const int64_t nowUs = KelpTime::getSteadyUs();
    int64_t leftUs = 0;
    {
        std::lock_guard lock(silenceMutex_);
        leftUs = silence_.leftUs(nowUs);
    }
    // As much silence as is still due when the device comes to it, so that the clock goes on evenly.
    const int64_t dueUs = std::max<int64_t>(leftUs - device->heard(nowUs).delayUs, 0);
    const int64_t bytes = std::min<int64_t>(bytesOf(dueUs), SDLAudioOutput::kRingBytes);
    if (bytes > 0) {
        device->fillFrame(makeSilence(bytes));
    }
    {
        std::lock_guard lock(silenceMutex_);
        deviceBytes_ = handedBytes_ - bytes;
        takenBytes_ = handedBytes_ - bytesOf(leftUs);
        takenUs_ = resumedUs_ = nowUs;
        isLeadIn_ = true;
        device_.store(device);
    }

    // What was asked for while nobody saw it.
    float volume = 0;
    do {
        volume = volume_;
        device->setVolume(volume);
    } while (std::bit_cast<uint32_t>(volume_.load()) != std::bit_cast<uint32_t>(volume));
    for (bool muted = false; isMuted_ != muted;) {
        muted = !muted;
        device->setMuted(muted);
    }
    for (bool paused = false; paused_ != paused;) {
        paused = !paused;
        device->pause(paused);
    }
    std::string name = givenName();
    for (std::string wanted; (wanted = deviceName()) != name; name = wanted) {
        device->setDevice(wanted);
    }
    if (flushRequested_) {
        device->flush();
    }
    if (closed_) {
        device->close();
    }
}

void SteadyAudioOutput::lose(std::shared_ptr<IAudioOutput> device) {
    Log::Warn(kTag, "the sound device is gone, going on in silence\n");
    lostUnderruns_.add(device->underruns());
    const int64_t nowUs = KelpTime::getSteadyUs();
    const HeardSound heard = device->heard(nowUs);
    // When what it was given should have been played.
    const int64_t endUs = nowUs + heard.delayUs - overdueUs(heard, nowUs);
    search_.begin(spec_, std::move(device));
    {
        std::lock_guard lock(silenceMutex_);
        device_.store(nullptr);
        silence_.begin(std::clamp(endUs, nowUs - kMaxHoleUs, nowUs + durationOf(SDLAudioOutput::kRingBytes)), nowUs);
    }
    waitInSilence();
}

int64_t SteadyAudioOutput::underruns() const {
    const auto device = device_.load();
    return lostUnderruns_.read() + (device ? device->underruns() : 0);
}

// No change is missed: who makes one counts it behind it, and the count was read before the look.
void SteadyAudioOutput::waitInSilence() {
    for (;;) {
        const unsigned int changes = changes_;
        int restMs = Rest::kForeverMs;
        {
            std::lock_guard lock(silenceMutex_);
            const int64_t nowUs = KelpTime::getSteadyUs();
            if (flushRequested_.exchange(false)) {
                silence_.clear(nowUs);
                return;
            }
            const int64_t waitUs = silence_.leftUs(nowUs) - durationOf(SDLAudioOutput::kRingBytes);
            if (waitUs <= 0 || closed_) {
                return;
            }
            if (!paused_) {
                restMs = static_cast<int>((waitUs + 999) / 1000);
            }
        }
        rest_.forMs(restMs, [&] { return changes_ != changes; });
    }
}

void SteadyAudioOutput::endRest() {
    ++changes_;
    rest_.end();
}

int64_t SteadyAudioOutput::durationOf(int64_t bytes) const {
    const int64_t bytesPerSecond = int64_t{frameBytes(spec_)} * spec_.sampleRate;
    return bytesPerSecond > 0 ? bytes * 1'000'000 / bytesPerSecond : 0;
}

int64_t SteadyAudioOutput::bytesOf(int64_t us) const {
    const int bytes = frameBytes(spec_);
    return us * spec_.sampleRate / 1'000'000 * bytes;
}

int SteadyAudioOutput::deviceBufferMs() const {
    return spec_.sampleRate > 0 ? blockFrames_ * 1000 / spec_.sampleRate : 0;
}

}  // namespace kelp
