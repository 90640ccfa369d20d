#pragma once

#include <numeric>
#include <vector>

namespace kelp::test {

using Bytes = std::vector<unsigned char>;

// `count` bytes, each one more than that before it.
inline Bytes sequence(int count, int first = 1) {
    Bytes bytes(static_cast<size_t>(count));
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(first));
    return bytes;
}

}  // namespace kelp::test
