#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// What every target defines: one run on `data`. It returns 0; a fault ends the process.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace kelp::test {

// Ends the process if the code under test did something else than it should.
inline void require(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz: not so: %s\n", what);
        std::abort();
    }
}

inline void require(bool condition, const std::string& what) {
    require(condition, what.c_str());
}

// Takes the bytes of an input apart, from the front; behind the end all is zero.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data_(data), left_(size) {}

    bool empty() const { return left_ == 0; }
    size_t left() const { return left_; }

    template <class Number>
    Number take() {
        Number value = 0;
        take(&value, sizeof(value));
        return value;
    }

    uint8_t byte() { return take<uint8_t>(); }

    // Copies what there is, up to `size` bytes; how many these were.
    size_t take(void* to, size_t size) {
        const size_t count = size < left_ ? size : left_;
        if (count > 0) {
            std::memcpy(to, data_, count);
        }
        data_ += count;
        left_ -= count;
        return count;
    }

private:
    const uint8_t* data_;
    size_t left_;
};

}  // namespace kelp::test
