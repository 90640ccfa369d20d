#pragma once

namespace kelp {

// The form in which samples go to the sound device.
struct AudioOutputSpec {
    int channels = 2;
    int sampleRate = 48000;  // in Hz, per channel
    int sampleFormat = 1;    // 0 unsigned 8 bits, 1 signed 16, 2 signed 32, 3 float, 4 planar float
};

}  // namespace kelp
