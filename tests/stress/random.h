#pragma once

#include <cstdint>
#include <random>

namespace kelp::test {

class Random {
public:
    explicit Random(uint64_t seed) : engine_(seed) {}
    int below(int limit) { return static_cast<int>(engine_() % static_cast<uint64_t>(limit)); }

private:
    std::mt19937_64 engine_;
};

}  // namespace kelp::test
