#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What `--option KEY=VALUE` has set, in order.
using Settings = std::vector<std::pair<std::string, std::string>>;

// False, and nothing is added, if `word` isn't KEY=VALUE.
bool addSetting(std::string_view word, Settings& settings);
