#pragma once

#include <cstddef>
#include <cstring>

namespace kelp {

// The length of a text in UTF-8, or, if it is longer than `longest` bytes, of the whole characters that these hold.
inline size_t wholeCharacters(const char* text, size_t longest) {
    size_t length = strnlen(text, longest + 1);
    if (length > longest) {
        for (length = longest; length > 0 && (text[length] & 0xC0) == 0x80; --length) {
        }
    }
    return length;
}

}  // namespace kelp
