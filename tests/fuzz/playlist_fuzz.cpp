// Playlists of HLS, well-formed and not, that are cut at any time.

#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

#include "fuzz/fuzz_target.h"
#include "input/playlist_cut.h"

using kelp::test::FuzzInput;
using kelp::test::require;

namespace {

constexpr std::string_view kPieces[] = {"#EXTM3U\n",
                                        "#EXT-X-MEDIA-SEQUENCE:",
                                        "#EXTINF:",
                                        "#EXTINF:1.5,\n",
                                        "#EXT-X-BYTERANGE:",
                                        "@",
                                        "1",
                                        "99999999999",
                                        ",",
                                        "\n",
                                        "\r\n",
                                        "a.m4s\n",
                                        "#EXT-X-KEY:METHOD=NONE\n",
                                        "#EXT-X-DISCONTINUITY\n",
                                        "#EXT-X-ENDLIST\n",
                                        "#EXT-X-PLAYLIST-TYPE:EVENT\n",
                                        "#EXT-X-MAP:URI=\"i\"\n",
                                        "-",
                                        ".",
                                        "e",
                                        "#",
                                        " "};

int count(std::string_view text, std::string_view part) {
    int found = 0;
    for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const auto fromUs = input.byte() % 2 == 0 ? int64_t{input.byte()} * 100'000 : input.take<int64_t>();
    std::string text;
    while (!input.empty()) {
        const uint8_t what = input.byte();
        if (what < 2 * std::size(kPieces)) {
            text += kPieces[what % std::size(kPieces)];
        } else {
            text += static_cast<char>(what);
        }
    }
    const auto cut = kelp::cutPlaylist(text, fromUs);
    if (cut) {
        require(cut->starts_with("#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:"), *cut);
        require(count(*cut, "#EXTINF:") <= count(text, "#EXTINF:"), text + " is cut to " + *cut);
        require(!kelp::cutPlaylist(*cut, 0), "cut twice: " + *cut);
    }
    return 0;
}
