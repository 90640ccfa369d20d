#pragma once

#include <string>
#include <vector>

#include "facts.h"
#include "report.h"
#include "settings.h"

namespace kelp::bench {

// What the UDP classes carry over the loopback address and what that costs, beside two bare sockets. False if it can't
// be measured.
bool measureUdp(const Settings& settings, Report& report);

// One row, in its process: "kelp" or "bare", the rate in Mbit/s (0: as fast as it goes) and for how many seconds.
bool udpRow(const std::vector<std::string>& words, Facts& facts);

}  // namespace kelp::bench
