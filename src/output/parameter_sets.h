#pragma once

#include <cstdint>
#include <memory>
#include <vector>

struct AVBSFContext;
struct AVCodecParameters;
struct AVPacket;

namespace kelp {

struct FreeParameterSetsFilter {
    void operator()(AVBSFContext* context) const;
};

// Finds what a decoder of H.264, HEVC or VVC has to know before a picture, where that stands among the pictures: in
// streams with start codes. One thread uses it.
class ParameterSets {
public:
    // None is found in streams of another kind.
    explicit ParameterSets(const AVCodecParameters& parameters);

    bool canBeFound() const { return filter_ != nullptr; }
    // With start codes; empty if there are none in it, or such as no file may be described by, see areCountsBounded.
    std::vector<uint8_t> in(const AVPacket& packet);
    // Likewise, of what was said of the stream when it was opened.
    const std::vector<uint8_t>& described() const { return described_; }

private:
    const int codecId_;  // an AVCodecID
    std::unique_ptr<AVBSFContext, FreeParameterSetsFilter> filter_;
    std::vector<uint8_t> described_;
};

}  // namespace kelp
