#include "counts.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "beside.h"

namespace kelp::bench {

bool measureCounts(const Settings& settings, Report& report) {
    const std::string rows = settings.folder + "/counts.json";
    const bool ok =
        runBeside("kelp_counts", "--json '" + rows + "'" + (settings.length == Length::Full ? "" : " --quick"), rows);
    std::printf("\n");
    std::ifstream file(rows);
    std::stringstream text;
    text << file.rdbuf();
    if (text.str().empty()) {
        return false;
    }
    report.add("counts", "Counts of a playback", text.str());
    return ok;
}

}  // namespace kelp::bench
