#pragma once

#include "report.h"
#include "settings.h"

namespace kelp::bench {

// What playing other codecs costs, with the recommended preset and into a frame sink, beside a bare loop of the same
// decoder. False if it can't be measured.
bool measureCodecCost(const Settings& settings, Report& report);

}  // namespace kelp::bench
