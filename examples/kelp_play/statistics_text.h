#pragma once

#include <string>

#include "kelp_player/statistics.h"

// How a playback goes, in some lines for a terminal.
std::string textOf(const kelp::Statistics& statistics);
