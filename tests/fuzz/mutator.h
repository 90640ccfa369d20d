#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace kelp::test {

using FuzzBytes = std::vector<uint8_t>;

// Makes inputs out of a corpus. The same seed and number give the same input.
class Mutator {
public:
    Mutator(std::vector<FuzzBytes> corpus, uint64_t seed, size_t maxBytes);

    FuzzBytes make(uint64_t number);

private:
    size_t below(size_t limit);
    // A position in `bytes`, half of the time near the front, where formats have their headers.
    size_t position(const FuzzBytes& bytes);
    size_t length(size_t limit);
    void mutate(FuzzBytes& bytes);
    void overwriteNumber(FuzzBytes& bytes);
    void copyWithin(FuzzBytes& bytes);
    void splice(FuzzBytes& bytes);

    std::vector<FuzzBytes> corpus_;
    uint64_t seed_;
    size_t maxBytes_;
    std::mt19937_64 random_;
};

}  // namespace kelp::test
