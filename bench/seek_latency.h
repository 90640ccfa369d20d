#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How long it takes from a seek to its picture, from each place that may hold it, playing and paused, beside a bare
// seek and decode to the same target. False if it can't be measured.
bool measureSeekLatency(const Settings& settings, const std::string& path, int rounds, Report& report);

// One row, in its process: "playing", "paused" or "bare"; "pictures", "packets" or "demuxer"; the file and how many.
bool seekLatencyRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
