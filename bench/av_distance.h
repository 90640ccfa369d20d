#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How far picture and sound are apart, for each master at speed 1 and 2: plays flashes and beeps, and measures what
// comes out of the frame sink and of the sound device. False if that fails.
bool measureAvDistance(const Settings& settings, Report& report);

// One row, in its process: the file, the master as the table names it, and the speed.
bool avDistanceRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
