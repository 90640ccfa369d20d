#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How far picture and sound are apart, for each master at several speeds, and after many seeks, pauses and changes of
// speed: plays flashes and beeps, and measures what comes out of the frame sink and of the sound device. False if that
// fails.
bool measureAvDistance(const Settings& settings, Report& report);

// One row, in its process: the file, the master as the table names it, the timing, and the speed, or "changes".
bool avDistanceRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
