#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// A row for each place that may hold a seek's target, playing and paused: how long it takes from a seek to its picture,
// beside a bare seek and decode to such targets. Without rows.
Table seekTable();

// Adds the rows of a clip, by its name and path. False if one can't be measured in full.
bool measureSeeks(const Settings& settings, const std::string& clip, const std::string& path, int rounds, Table& table,
                  Report& report);

// One row, in its process: "playing", "paused" or "bare"; "pictures", "packets" or "demuxer"; the file, and what
// `runByTurns` adds.
bool seekLatencyRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
