#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kelp {

// `text` in UTF-8 whatever it holds: each byte that isn't part of a character becomes U+FFFD.
std::string readableUtf8(std::string_view text);

// The same into the `size` bytes at `to`, terminator included: as many whole characters as they hold. Allocates
// nothing.
void copyReadableUtf8(std::string_view text, char* to, size_t size);

}  // namespace kelp
