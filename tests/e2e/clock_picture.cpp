#include "e2e/clock_picture.h"

#include <chrono>

namespace kelp::test {

int64_t readClockPicture(const uint8_t* luminance, ptrdiff_t stride, int width, int height) {
    constexpr int kBits = 32;
    constexpr int kBlack = 64;   // and below; a black block is 16
    constexpr int kWhite = 190;  // and above; a white block is 235
    const uint8_t* row = luminance + height / 2 * stride;
    int64_t clock = 0;
    for (int bit = 0; bit < kBits; ++bit) {
        const int block = width / kBits;
        const int value = row[bit * block + block / 2];
        if (value > kBlack && value < kWhite) {
            return -1;
        }
        clock = clock * 2 + (value >= kWhite ? 1 : 0);
    }
    return clock;
}

int64_t clockPictureNow() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count() & 0xffffffff;
}

}  // namespace kelp::test
