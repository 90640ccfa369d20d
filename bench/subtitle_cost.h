#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// What subtitles add to playing a film, drawn for a screen of the picture's size and handed to a sink. False if it
// can't be measured.
bool measureSubtitleCost(const Settings& settings, Report& report);

// A row of it: the film, a file of subtitles or "none", and how many seconds.
bool subtitleCostRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
