#include "fuzz/mutator.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kelp::test {

namespace {

constexpr size_t kHeaderBytes = 2048;
constexpr size_t kMaxFreshBytes = 256;

}  // namespace

Mutator::Mutator(std::vector<FuzzBytes> corpus, uint64_t seed, size_t maxBytes)
    : corpus_(std::move(corpus)), seed_(seed), maxBytes_(maxBytes) {
}

size_t Mutator::below(size_t limit) {
    return limit == 0 ? 0 : static_cast<size_t>(random_() % limit);
}

size_t Mutator::position(const FuzzBytes& bytes) {
    return below(2) == 0 ? below(std::min(bytes.size(), kHeaderBytes)) : below(bytes.size());
}

// Short ones are the usual ones.
size_t Mutator::length(size_t limit) {
    const size_t scale = size_t{1} << below(12);
    return std::min(limit, 1 + below(scale));
}

FuzzBytes Mutator::make(uint64_t number) {
    random_.seed(seed_ * 0x9E3779B97F4A7C15ULL + number);
    FuzzBytes bytes;
    if (corpus_.empty() || below(20) == 0) {
        bytes.resize(below(kMaxFreshBytes));
        std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<uint8_t>(random_()); });
        return bytes;
    }
    bytes = corpus_[below(corpus_.size())];
    for (size_t left = 1 + below(size_t{1} << below(6)); left > 0; --left) {
        mutate(bytes);
    }
    if (bytes.size() > maxBytes_) {
        bytes.resize(maxBytes_);
    }
    return bytes;
}

void Mutator::mutate(FuzzBytes& bytes) {
    if (bytes.empty()) {
        bytes.push_back(static_cast<uint8_t>(random_()));
        return;
    }
    const size_t at = position(bytes);
    const auto here = bytes.begin() + static_cast<ptrdiff_t>(at);
    switch (below(12)) {
        case 0:
        case 1:
            bytes[at] ^= static_cast<uint8_t>(1U << below(8));
            return;
        case 2:
        case 3:
            bytes[at] = static_cast<uint8_t>(random_());
            return;
        case 4:
        case 5:
            overwriteNumber(bytes);
            return;
        case 6: {
            const size_t count = length(bytes.size() - at);
            bytes.erase(here, here + static_cast<ptrdiff_t>(count));
            return;
        }
        case 7: {
            FuzzBytes fresh(length(kMaxFreshBytes));
            std::generate(fresh.begin(), fresh.end(), [this] { return static_cast<uint8_t>(random_()); });
            bytes.insert(here, fresh.begin(), fresh.end());
            return;
        }
        case 8:
            copyWithin(bytes);
            return;
        case 9:
            splice(bytes);
            return;
        case 10: {
            const size_t count = length(bytes.size() - at);
            std::fill(here, here + static_cast<ptrdiff_t>(count), static_cast<uint8_t>(below(2) * 255));
            return;
        }
        default:
            // Cuts off the end, but seldom.
            if (below(4) == 0) {
                bytes.resize(below(bytes.size()));
            }
            return;
    }
}

// Sizes, counts and times that lie at the ends of their ranges, in either byte order.
void Mutator::overwriteNumber(FuzzBytes& bytes) {
    constexpr std::array<uint64_t, 12> kNumbers = {
        0, 1, 0x7F, 0x80, 0xFF, 0x7FFF, 0x8000, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x7FFFFFFFFFFFFFFF};
    const uint64_t number = kNumbers[below(kNumbers.size())];
    const size_t width = size_t{1} << below(4);
    const bool bigEndian = below(2) == 0;
    const size_t at = position(bytes);
    for (size_t i = 0; i < width && at + i < bytes.size(); ++i) {
        const size_t shift = 8 * (bigEndian ? width - 1 - i : i);
        bytes[at + i] = static_cast<uint8_t>(number >> shift);
    }
}

void Mutator::copyWithin(FuzzBytes& bytes) {
    const size_t from = position(bytes);
    const size_t to = position(bytes);
    const size_t count = length(bytes.size() - std::max(from, to));
    const FuzzBytes part(bytes.begin() + static_cast<ptrdiff_t>(from),
                         bytes.begin() + static_cast<ptrdiff_t>(from + count));
    std::copy(part.begin(), part.end(), bytes.begin() + static_cast<ptrdiff_t>(to));
}

// Goes on with another entry of the corpus from somewhere on.
void Mutator::splice(FuzzBytes& bytes) {
    const FuzzBytes& other = corpus_[below(corpus_.size())];
    if (other.empty() || below(3) != 0) {
        return;
    }
    const size_t from = below(other.size());
    bytes.resize(below(bytes.size() + 1));
    bytes.insert(bytes.end(), other.begin() + static_cast<ptrdiff_t>(from), other.end());
}

}  // namespace kelp::test
