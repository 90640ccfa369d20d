#include "input/playlist_cut.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <utility>
#include <vector>

#include "clock/wrapping_math.h"

namespace kelp {
namespace {

constexpr std::string_view kNumber = "#EXT-X-MEDIA-SEQUENCE:";
constexpr std::string_view kLength = "#EXTINF:";
constexpr std::string_view kRange = "#EXT-X-BYTERANGE:";
// Further tags that belong to the one segment behind them.
constexpr std::string_view kOfOneSegment[] = {"#EXT-X-DISCONTINUITY", "#EXT-X-GAP",
                                              "#EXT-X-PROGRAM-DATE-TIME:", "#EXT-X-BITRATE:"};

constexpr int64_t kLongestUs = 1'000'000'000'000'000;  // some thirty years, of all segments together

int64_t toNumber(std::string_view text) {
    int64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

int64_t lengthUs(std::string_view line) {
    const double seconds = std::strtod(std::string(line.substr(kLength.size())).c_str(), nullptr);
    return seconds > 0 ? static_cast<int64_t>(std::min(seconds * 1e6, static_cast<double>(kLongestUs))) : 0;
}

bool isOfOneSegment(std::string_view line) {
    for (const std::string_view tag : kOfOneSegment) {
        if (tag.ends_with(':') ? line.starts_with(tag) : line == tag) {
            return true;
        }
    }
    return line.starts_with(kLength) || line.starts_with(kRange);
}

// The part of a file that a segment is: "length[@offset]". Without an offset it follows the one before.
struct Range {
    explicit Range(std::string_view text, int64_t before) {
        const size_t at = text.find('@');
        offset = at == std::string_view::npos ? before : toNumber(text.substr(at + 1));
        length = toNumber(text.substr(0, at));
    }

    int64_t offset;
    int64_t length;
};

std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        while (line.ends_with('\r') || line.ends_with(' ') || line.ends_with('\t')) {
            line.remove_suffix(1);
        }
        lines.push_back(line);
    }
    return lines;
}

}  // namespace

std::optional<std::string> cutPlaylist(std::string_view text, int64_t fromUs) {
    int segments = 0;
    bool isWhole = false;
    const auto lines = linesOf(text);
    for (const std::string_view line : lines) {
        segments += line.empty() || line.starts_with('#') ? 0 : 1;
        isWhole = isWhole || line == "#EXT-X-ENDLIST" || line == "#EXT-X-PLAYLIST-TYPE:EVENT";
    }
    std::string kept;
    std::string ofSegment;  // the tags of the next one
    int64_t number = 0;
    int leftOut = 0;
    int64_t endUs = 0;
    int64_t rangeEnd = 0;
    for (const std::string_view line : lines) {
        if (line.empty() || line == "#EXTM3U") {
            continue;
        }
        if (line.starts_with(kNumber)) {
            number = toNumber(line.substr(kNumber.size()));
            continue;
        }
        if (line.starts_with(kLength)) {
            endUs = std::min(endUs + lengthUs(line), kLongestUs);
        }
        if (line.starts_with(kRange)) {
            const Range range(line.substr(kRange.size()), rangeEnd);
            rangeEnd = wrappingAdd(range.offset, range.length);
            ofSegment += std::string(kRange) + std::to_string(range.length) + "@" + std::to_string(range.offset) + "\n";
        } else if (isOfOneSegment(line)) {
            (ofSegment += line) += '\n';
        } else if (line.starts_with('#')) {
            (kept += line) += '\n';
        } else if (endUs > fromUs || leftOut == segments - 1) {
            ((kept += std::exchange(ofSegment, {})) += line) += '\n';
        } else {
            ofSegment.clear();
            ++leftOut;
        }
    }
    if (leftOut == 0 || !isWhole) {
        return std::nullopt;
    }
    return "#EXTM3U\n" + std::string(kNumber) + std::to_string(wrappingAdd(number, leftOut)) + "\n" + kept;
}

}  // namespace kelp
