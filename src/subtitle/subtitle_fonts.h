#pragma once

#include <memory>
#include <string>
#include <vector>

struct AVFormatContext;

namespace kelp {

// A font that came with a film.
struct SubtitleFont {
    std::string name;  // of the file
    std::vector<char> data;
};
using SubtitleFonts = std::vector<SubtitleFont>;

// The fonts that are attached to `input`; null if there are none.
std::shared_ptr<const SubtitleFonts> fontsOf(const AVFormatContext& input);

}  // namespace kelp
