#include "present/audio_play_fakes.h"

#include <chrono>
#include <cstdio>
#include <cstring>

namespace kelp::test {

namespace {

constexpr auto kPatience = std::chrono::seconds(20);

std::string text(const char* format, double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), format, value);
    return buffer;
}

std::string text(const char* call, AudioOutputSpec spec) {
    return std::string(call) + " " + std::to_string(spec.channels) + " " + std::to_string(spec.sampleRate) + " " +
           std::to_string(spec.sampleFormat);
}

void record(const std::string& call) {
    if (FakeSoundTouch::calls) {
        FakeSoundTouch::calls->add(call);
    }
}

}  // namespace

void CallRecord::add(const std::string& call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(call);
    changed_.notify_all();
}

std::vector<std::string> CallRecord::take() {
    std::lock_guard lock(mutex_);
    return std::exchange(calls_, {});
}

int CallRecord::count(const std::string& call) {
    std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(calls_.begin(), calls_.end(), call));
}

bool CallRecord::waitFor(const std::string& call, int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return std::count(calls_.begin(), calls_.end(), call) >= count; });
}

bool FakeSoundTouch::missing = false;
CallRecord* FakeSoundTouch::calls = nullptr;
bool FakeSoundTouch::scripted = false;
unsigned int FakeSoundTouch::ready = 0;
unsigned int FakeSoundTouch::channels = 0;
short FakeSoundTouch::value = 0;
std::vector<float> FakeSoundTouch::tempos;
std::vector<short> FakeSoundTouch::putIn;
std::atomic<int> FakeSoundTouch::instances{0};

void FakeSoundTouch::reset() {
    missing = false;
    calls = nullptr;
    scripted = false;
    ready = 0;
    value = 0;
    tempos.clear();
    putIn.clear();
}

bool FakeAudioOutput::init(AudioOutputSpec spec) {
    calls_.add(text("init", spec));
    onInit();
    return hasDevice;
}

bool FakeAudioOutput::fillFrame(std::shared_ptr<AudioFrameInfo> frame) {
    std::unique_lock lock(mutex_);
    written.assign(frame->buffer->data, frame->buffer->data + frame->dataSize);
    calls_.add("fill " + std::to_string(frame->dataSize));
    released_.wait(lock, [&] { return !blocking || flushRequested_ || closed_; });
    flushRequested_ = false;
    return true;
}

bool FakeAudioOutput::pause(bool paused) {
    const auto hook = onPause;  // may replace itself
    hook(paused);
    calls_.add(paused ? "pause 1" : "pause 0");
    return true;
}

void FakeAudioOutput::close() {
    calls_.add("close");
    std::lock_guard lock(mutex_);
    closed_ = true;
    released_.notify_all();
}

void FakeAudioOutput::flush() {
    calls_.add("flush");
    {
        std::lock_guard lock(mutex_);
        flushRequested_ = true;
        released_.notify_all();
    }
    onFlush();
}

bool FakeAudioOutput::setVolume(float newVolume) {
    onSetVolume();
    calls_.add(text("volume %g", newVolume));
    volume = newVolume;
    return volumeResult;
}

std::shared_ptr<IAudioOutput> FakeOutputFactory::create(AudioOutputSpec spec) {
    calls_.add(text("create", spec));
    return output_;
}

void RecordingObserver::onFirstAudioFrame(int64_t pts) {
    std::lock_guard lock(mutex_);
    firstFrames_.push_back(pts);
    changed_.notify_all();
}

std::vector<int64_t> RecordingObserver::firstFrames() {
    std::lock_guard lock(mutex_);
    return firstFrames_;
}

bool RecordingObserver::waitForFirstFrame(int64_t pts) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] {
        return std::find(firstFrames_.begin(), firstFrames_.end(), pts) != firstFrames_.end();
    });
}

std::shared_ptr<FrameBuffer> makeBuffer(unsigned int capacity) {
    auto buffer = std::make_shared<FrameBuffer>();
    buffer->data = new unsigned char[capacity]();
    buffer->size = capacity;
    return buffer;
}

std::shared_ptr<AudioFrameInfo> makeAudioFrame(int64_t pts, unsigned int bytes, int64_t duration,
                                               unsigned int capacity) {
    auto frame = std::make_shared<AudioFrameInfo>();
    frame->frameTag = 0;
    frame->pts = pts;
    frame->duration = duration;
    frame->dataSize = bytes;
    frame->buffer = makeBuffer(capacity > 0 ? capacity : bytes);
    for (unsigned int i = 0; i < std::min(bytes, frame->buffer->size) / sizeof(short); ++i) {
        const auto sample = static_cast<short>(i + 1);
        std::memcpy(frame->buffer->data + i * sizeof(short), &sample, sizeof(sample));
    }
    return frame;
}

}  // namespace kelp::test

// The tempo library's functions, as the linker puts them before the real ones.
extern "C" {

using kelp::test::FakeSoundTouch;

void* __real_soundtouch_createInstance();
void __real_soundtouch_destroyInstance(void* handle);
void __real_soundtouch_setTempo(void* handle, float tempo);
void __real_soundtouch_setPitch(void* handle, float pitch);
int __real_soundtouch_setChannels(void* handle, unsigned int channels);
int __real_soundtouch_setSampleRate(void* handle, unsigned int rate);
int __real_soundtouch_flush(void* handle);
void __real_soundtouch_putSamples_i16(void* handle, const short* samples, unsigned int count);
unsigned int __real_soundtouch_numSamples(void* handle);
unsigned int __real_soundtouch_receiveSamples_i16(void* handle, short* samples, unsigned int most);

void* __wrap_soundtouch_createInstance() {
    if (FakeSoundTouch::missing) {
        return nullptr;
    }
    ++FakeSoundTouch::instances;
    return __real_soundtouch_createInstance();
}

void __wrap_soundtouch_destroyInstance(void* handle) {
    --FakeSoundTouch::instances;
    __real_soundtouch_destroyInstance(handle);
}

void __wrap_soundtouch_setTempo(void* handle, float tempo) {
    kelp::test::record("tempo");
    if (FakeSoundTouch::calls) {
        FakeSoundTouch::tempos.push_back(tempo);
    }
    if (!FakeSoundTouch::scripted) {
        __real_soundtouch_setTempo(handle, tempo);
    }
}

void __wrap_soundtouch_setPitch(void* handle, float pitch) {
    kelp::test::record(kelp::test::text("pitch %g", pitch));
    __real_soundtouch_setPitch(handle, pitch);
}

int __wrap_soundtouch_setChannels(void* handle, unsigned int channels) {
    kelp::test::record("channels " + std::to_string(channels));
    FakeSoundTouch::channels = channels;
    return __real_soundtouch_setChannels(handle, channels);
}

int __wrap_soundtouch_setSampleRate(void* handle, unsigned int rate) {
    kelp::test::record("sampleRate " + std::to_string(rate));
    return __real_soundtouch_setSampleRate(handle, rate);
}

int __wrap_soundtouch_flush(void* handle) {
    kelp::test::record("st flush");
    return FakeSoundTouch::scripted ? 1 : __real_soundtouch_flush(handle);
}

void __wrap_soundtouch_putSamples_i16(void* handle, const short* samples, unsigned int count) {
    kelp::test::record("put " + std::to_string(count));
    if (FakeSoundTouch::calls) {
        FakeSoundTouch::putIn.insert(FakeSoundTouch::putIn.end(), samples, samples + FakeSoundTouch::channels * count);
    }
    if (FakeSoundTouch::scripted) {
        return;
    }
    __real_soundtouch_putSamples_i16(handle, samples, count);
}

unsigned int __wrap_soundtouch_numSamples(void* handle) {
    return FakeSoundTouch::scripted ? FakeSoundTouch::ready : __real_soundtouch_numSamples(handle);
}

unsigned int __wrap_soundtouch_receiveSamples_i16(void* handle, short* samples, unsigned int most) {
    kelp::test::record("receive " + std::to_string(most));
    if (!FakeSoundTouch::scripted) {
        return __real_soundtouch_receiveSamples_i16(handle, samples, most);
    }
    const unsigned int count = std::min(most, FakeSoundTouch::ready);
    std::fill(samples, samples + FakeSoundTouch::channels * count, FakeSoundTouch::value);
    return count;
}

}  // extern "C"
