#pragma once

#include <string>
#include <vector>

// The values of the option "audio_device" to choose from: "default", and the sound devices there are, in UTF-8.
std::vector<std::string> deviceMenu();

// The one behind `current`, and behind the last the first.
std::string deviceAfter(const std::string& current);
