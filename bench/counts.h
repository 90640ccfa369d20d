#pragma once

#include "report.h"
#include "settings.h"

namespace kelp::bench {

// Runs the program kelp_counts, which lies beside this one, and takes over its tables: it counts copies and
// allocations, with functions of the system replaced, and so stands apart. False if it isn't there or fails.
bool measureCounts(const Settings& settings, Report& report);

}  // namespace kelp::bench
