#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// What each of many players in one process costs, beside as many bare loops. False if it can't be measured.
bool measurePlayers(const Settings& settings, Report& report);

// One row, in its process: "player" or "bare", the file, how many, for how many seconds, and two that
// `runByTurns` adds.
bool playersRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
