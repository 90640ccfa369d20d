#pragma once

#include <string_view>

namespace kelp::test {

// Fails the running test if the library writes a line of this tag at another level than it is due at. Those of the
// tests' own tags may have any. Any thread may ask; it costs no lock, no allocation.
void expectDueLevel(int level, std::string_view tag, std::string_view message);

}  // namespace kelp::test
