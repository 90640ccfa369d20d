#pragma once

#include "report.h"
#include "settings.h"

namespace kelp::bench {

// How far behind its source a live source is shown, with both values of `live_delay`, beside a bare loop, and how soon
// again behind a standstill: what live_delay finds, beside this program. False if it can't be measured.
bool measureLive(const Settings& settings, Report& report);

}  // namespace kelp::bench
