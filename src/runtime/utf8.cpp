#include "runtime/utf8.h"

extern "C" {
#include <libavutil/avstring.h>
}

namespace kelp {

namespace {

// Takes the first character off `text`, or one byte that isn't part of any.
std::string_view takeCharacter(std::string_view& text) {
    constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    const auto* const begin = reinterpret_cast<const uint8_t*>(text.data());
    const auto* at = begin;
    int32_t code = 0;
    if (av_utf8_decode(&code, &at, begin + text.size(), AV_UTF8_FLAG_ACCEPT_NON_CHARACTERS) < 0) {
        text.remove_prefix(1);  // what follows may be readable
        return kReplacement;
    }
    const std::string_view character = text.substr(0, static_cast<size_t>(at - begin));
    text.remove_prefix(character.size());
    return character;
}

}  // namespace

std::string readableUtf8(std::string_view text) {
    std::string readable;
    while (!text.empty()) {
        readable += takeCharacter(text);
    }
    return readable;
}

void copyReadableUtf8(std::string_view text, char* to, size_t size) {
    while (!text.empty()) {
        const std::string_view character = takeCharacter(text);
        if (character.size() >= size) {
            break;
        }
        to += character.copy(to, character.size());
        size -= character.size();
    }
    *to = '\0';
}

}  // namespace kelp
