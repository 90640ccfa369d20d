#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How far four players on one host's clock, two of them with sound, are apart, and from the clock. False if it can't be
// measured.
bool measureScreens(const Settings& settings, Report& report);

// The same over ten minutes, or `settings.seconds`, with exact timing at all speeds.
bool measureScreensForLong(const Settings& settings, Report& report);

// One row, in its process: a file with sound, one without, the seconds to watch, the timing and the speed.
bool screensRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
