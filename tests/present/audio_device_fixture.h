#pragma once

#include <SDL.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "present/sdl_audio_output.h"
#include "support/fake_time.h"

namespace kelp::test {

// Stands between the output and SDL. With `real` set, calls go through to the library; else `device` is what an open
// gives. A call is recorded in words.
struct AudioDeviceFakes {
    bool real = false;
    SDL_AudioDeviceID device = 2;
    std::string missing;  // the name of a device that can't be opened
    SDL_AudioStatus status = SDL_AUDIO_PLAYING;
    SDL_AudioSpec wanted{};
    std::function<void(SDL_AudioSpec*)> obtain;  // changes what was obtained, a copy of what was wanted
    std::function<void()> onRingReset;
    std::function<void()> onRingAbort;
    std::vector<std::string> calls;
};

// The one set of fakes of the program. Not locked, but for the notes of the calls.
AudioDeviceFakes& audioDevice();

inline std::shared_ptr<AudioFrameInfo> makeFrame(const std::vector<unsigned char>& bytes) {
    auto frame = std::make_shared<AudioFrameInfo>();
    frame->buffer = std::make_shared<FrameBuffer>();
    frame->buffer->data = new unsigned char[bytes.size() + 1];
    frame->buffer->size = static_cast<unsigned>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), frame->buffer->data);
    frame->dataSize = frame->buffer->size;
    return frame;
}

inline std::shared_ptr<AudioFrameInfo> makeFrame(const std::vector<int16_t>& samples) {
    std::vector<unsigned char> bytes(samples.size() * 2);
    std::memcpy(bytes.data(), samples.data(), bytes.size());
    return makeFrame(bytes);
}

inline std::shared_ptr<AudioFrameInfo> makeFrameOf(size_t count, unsigned char value = 1) {
    return makeFrame(std::vector<unsigned char>(count, value));
}

class SDLAudioOutputFixture : public testing::Test {
protected:
    SDLAudioOutputFixture() {
        audioDevice() = {};
        FakeTime::reset();
    }

    ~SDLAudioOutputFixture() override {
        FakeTime::reset();
        output.reset();
        audioDevice() = {};
    }

    // What the device gets when it asks for `count` bytes.
    std::vector<unsigned char> take(int count) {
        std::vector<unsigned char> bytes(static_cast<size_t>(count), 0xEE);
        SDLAudioOutput::sdlAudioCallback(output.get(), bytes.data(), count);
        return bytes;
    }

    std::vector<int16_t> takeSamples(int count) {
        const auto bytes = take(2 * count);
        std::vector<int16_t> samples(static_cast<size_t>(count));
        std::memcpy(samples.data(), bytes.data(), bytes.size());
        return samples;
    }

    std::vector<int16_t> scaled(float volume, const std::vector<int16_t>& samples) {
        EXPECT_TRUE(output->setVolume(volume));
        EXPECT_TRUE(output->fillFrame(makeFrame(samples)));
        return takeSamples(static_cast<int>(samples.size()));
    }

    std::shared_ptr<SDLAudioOutput> output = std::make_shared<SDLAudioOutput>();
};

}  // namespace kelp::test
