#pragma once

#include <string>

namespace kelp::bench {

// Prints a table of how long seeks take in the file at `path`, from the call to the first-frame event: 200 to random
// places, while it plays and while it is paused. False if one of them doesn't end.
bool printSeekTimes(const std::string& path);

}  // namespace kelp::bench
