#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How long a step from picture to picture takes in a pause, beside what the libraries need for it. False if it can't be
// measured in full.
bool measureSteps(const Settings& settings, Report& report);

// One row, in its process: "player" or "bare", "forward" or "back", the file, and what `runByTurns` adds.
bool stepsRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
