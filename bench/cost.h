#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// What playing a film costs, into a frame sink and into windows, beside a bare loop that does the same. False if it
// can't be measured.
bool measureCost(const Settings& settings, Report& report);

// One row, in its process: "player" or "bare", with "-sharing" behind it for pictures that nobody copies, or
// "player-recommended" for one with that preset, "sink" or "window", the file, the speed (0: as fast as it goes) and
// the seconds of film.
bool costRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
