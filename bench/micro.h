#pragma once

#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How fast small parts of the library are by themselves: runs kelp_micro, whose table Google Benchmark makes, and keeps
// the figures.
bool measureMicro(const Settings& settings, Report& report);

}  // namespace kelp::bench
