#pragma once

#include <string>
#include <vector>

namespace kelp {

// The names of the sound devices there are by now, in UTF-8; empty without a sound system. Any thread.
std::vector<std::string> audioDeviceNames();

}  // namespace kelp
