#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How often the threads of a player wake up, in each state. False if it can't be measured.
bool measureWakes(const Settings& settings, Report& report);

// One row, in its process: "idle", "playing", "window", "paused" or "ended", the file, and for how many seconds.
bool wakesRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
