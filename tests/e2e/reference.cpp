#include "e2e/reference.h"

#include <cmath>

namespace kelp::test {

ReferencePictures::ReferencePictures(const std::string& path, const std::string& scaling)
    : pipe_(popen(("ffmpeg -nostdin -v quiet -noautorotate -i '" + path +
                   "' -map 0:v:0 -fps_mode passthrough -noautoscale -vf scale=out_range=tv" + scaling +
                   ",format=yuv420p -f rawvideo -")
                      .c_str(),
                  "r")) {
}

bool ReferencePictures::next(int width, int height, std::vector<uint8_t>& bytes) {
    const size_t chroma = static_cast<size_t>((width + 1) / 2) * static_cast<size_t>((height + 1) / 2);
    bytes.resize(static_cast<size_t>(width) * static_cast<size_t>(height) + 2 * chroma);
    return pipe_ && fread(bytes.data(), 1, bytes.size(), pipe_.get()) == bytes.size();
}

std::vector<uint8_t> cropChroma(const std::vector<uint8_t>& reference, int width, int height) {
    if (width % 2 == 0 && height % 2 == 0) {
        return reference;
    }
    const auto luma = static_cast<ptrdiff_t>(width) * height;
    std::vector<uint8_t> result(reference.begin(), reference.begin() + luma);
    const uint8_t* plane = reference.data() + luma;
    for (int i = 0; i < 2; ++i) {
        for (int row = 0; row < height / 2; ++row) {
            const uint8_t* line = plane + static_cast<ptrdiff_t>(row) * ((width + 1) / 2);
            result.insert(result.end(), line, line + width / 2);
        }
        plane += static_cast<ptrdiff_t>((width + 1) / 2) * ((height + 1) / 2);
    }
    return result;
}

double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    if (a.size() != b.size() || a.empty()) {
        return 0;
    }
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        const double difference = static_cast<double>(a[i]) - b[i];
        sum += difference * difference;
    }
    return sum == 0 ? 100 : 10 * std::log10(255.0 * 255.0 * static_cast<double>(a.size()) / sum);
}

}  // namespace kelp::test
