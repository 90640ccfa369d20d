#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How well pictures keep their time at the usual rates, at several speeds and with each master, with standard and exact
// timing, beside a bare loop that sleeps until each picture is due; and how far picture and sound are apart, and
// several screens. False if it can't be measured.
bool measurePresentation(const Settings& settings, Report& report);

// One row, in its process: "player" or "bare", the file, the pictures per second of it, the seconds to watch, for the
// loop of film, the speed, the master and the timing.
bool presentationRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
