#include "counts.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include "beside.h"

namespace kelp::bench {

bool measureCounts(const Settings& settings, Report& report) {
    const std::string program = programBeside("kelp_counts");
    if (program.empty()) {
        return false;
    }
    const std::string rows = settings.folder + "/counts.json";
    std::error_code error;
    std::filesystem::remove(rows, error);
    const bool ok =
        runCommand("'" + program + "' --json '" + rows + "'" + (settings.length == Length::Full ? "" : " --quick"));
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
