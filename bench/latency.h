#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How long a host waits for what it asks a player for, beside what the libraries need for it. False if it can't be
// measured.
bool measureLatency(const Settings& settings, Report& report);

// One row, in its process: "start", "pause", "bare" or "device", the file (none for the last), and what `runByTurns`
// adds.
bool latencyRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
